#include "jdbc_versions.h"

#include "qorlog.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"

QorJdbcVersion jdbc_versions[MAX_JDBC_VERSIONS];
int32_t num_jdbc_versions;

namespace {

uint32_t collectionsSeen; // by the records

struct FieldName {
    const char *name, *signature;
};
constexpr FieldName FIELDS[JDBC_FIELDS] = {
    {"connection", "Ltessar/jdbc/driver/TessarConnection;"},
    {"q5Connection", "Ltessar/jdbc/driver/Q5DConnection;"},
    {"statements", "Ltessar/jdbc/driver/TessarStatement;"},
    {"sql_query", "Ljava/lang/String;"},
    {"m_sql", "Ltessar/jdbc/driver/TessarSql;"},
    {"originalSql", "Ljava/lang/String;"},
    {"url", "Ljava/lang/String;"},
    {"user", "Ljava/lang/String;"},
    {"userName", "Ljava/lang/String;"},
    {"db_access", "Ltessar/jdbc/dbaccess/DBAccess;"},
    {"c_state", "J"},
    {"net", "Ltessar/net/ns/Communication;"},
    {"sAtts", "Ltessar/net/ns/SessionAtts;"},
    {"ntInputStream", "Ljava/io/InputStream;"},
    {"fd", "Ljava/io/FileDescriptor;"},
    {"realStream", "Ljava/io/InputStream;"},
    {"fd", "Ljava/io/FileDescriptor;"},
    {"fd", "I"},
};

void DropStaleRecords() {
    const uint32_t collections = QorCollectionCount();
    if (collections != collectionsSeen)
        num_jdbc_versions = 0;
    collectionsSeen = collections;
}

QorJdbcVersion *FindRecord(uint64_t klass) {
    for (int32_t i = 0; i < num_jdbc_versions; i++)
        if (jdbc_versions[i].klass == klass)
            return &jdbc_versions[i];
    return nullptr;
}

// When all are in use, all go: no JVM has so many classes of statements, but spoilt memory may show them.
QorJdbcVersion *insert_jdbc_version(uint64_t klass, QorJdbcForm version) {
    if (num_jdbc_versions == MAX_JDBC_VERSIONS)
        num_jdbc_versions = 0;
    QORLOG(LOG_NOTE, "QOR Agent: Adding JDBC Version[%d] klass %lx version %d", num_jdbc_versions, klass,
           version);
    QorJdbcVersion *record = &jdbc_versions[num_jdbc_versions++];
    *record = {klass, version, {}};
    return record;
}

bool HasField(uint64_t object, QorJdbcField field) {
    return find_object_field(object, 0, FIELDS[field].name, FIELDS[field].signature) != 0;
}

} // namespace

QorJdbcVersion *get_jdbc_version(uint64_t statement) {
    DropStaleRecords();
    const uint64_t klass = QorKlassOf(statement);
    if (klass == 0)
        return nullptr;
    if (QorJdbcVersion *known = FindRecord(klass))
        return known;
    if (HasField(statement, JDBC_CONNECTION))
        return insert_jdbc_version(klass, JDBC_DIRECT);
    return HasField(statement, JDBC_Q5_CONNECTION) ? insert_jdbc_version(klass, JDBC_LAYERED) : nullptr;
}

QorJdbcVersion *set_jdbc_version(uint64_t connection, QorJdbcForm version) {
    DropStaleRecords();
    const uint64_t klass = QorKlassOf(connection);
    if (klass == 0)
        return nullptr;
    QorJdbcVersion *known = FindRecord(klass);
    return known ? known : insert_jdbc_version(klass, version);
}

uint64_t QorJdbcPlace(QorJdbcVersion *record, uint64_t object, QorJdbcField field) {
    return get_object_field(object, FIELDS[field].name, FIELDS[field].signature, &record->fieldCache[field]);
}

uint64_t QorJdbcObject(QorJdbcVersion *record, uint64_t object, QorJdbcField field) {
    const uint64_t place = QorJdbcPlace(record, object, field);
    return place ? QorWordAt(place) : 0;
}

void QorDropJdbcVersions() {
    num_jdbc_versions = 0;
}
