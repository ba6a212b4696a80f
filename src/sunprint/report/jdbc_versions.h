// Which form of the database driver a class of statements or connections is of, and where its fields are.
//
// Classes move and are unloaded by collections: all records are dropped when one has begun since they were
// made. A record stays where it is until then. Worker.
#pragma once

#include "sunprint/fields.h"

#include <cstdint>

enum QorJdbcForm : uint8_t {
    JDBC_DIRECT,          // a "connection", and the SQL text itself
    JDBC_LAYERED,         // a "q5Connection", and the SQL text by an object
    JDBC_WITHOUT_SESSION, // a connection whose class knows no statements
};

// What is read of the driver's objects, and has a cell in each record.
enum QorJdbcField : int32_t {
    JDBC_CONNECTION,
    JDBC_Q5_CONNECTION,
    JDBC_STATEMENTS,
    JDBC_SQL_QUERY,
    JDBC_SQL_OBJECT,
    JDBC_ORIGINAL_SQL,
    JDBC_URL,
    JDBC_USER,
    JDBC_USER_NAME,
    JDBC_ACCESS,
    JDBC_NATIVE_STATE,
    JDBC_NET,
    JDBC_SESSION,
    JDBC_INPUT,
    JDBC_INPUT_DESCRIPTOR,
    JDBC_REAL_INPUT,
    JDBC_REAL_DESCRIPTOR,
    JDBC_DESCRIPTOR,
    JDBC_FIELDS
};

enum : int32_t { MAX_JDBC_VERSIONS = 64, JDBC_CELLS = 20 };
static_assert(int32_t{JDBC_FIELDS} <= int32_t{JDBC_CELLS}, "each field has a cell");

struct QorJdbcVersion {
    uint64_t klass;
    QorJdbcForm version;
    QorFieldCell fieldCache[JDBC_CELLS];
};

extern QorJdbcVersion jdbc_versions[MAX_JDBC_VERSIONS];
extern int32_t num_jdbc_versions;

// The record of a statement's class, null for an object that leads to no connection. Call it, or
// set_jdbc_version, first for each object: both drop what a collection has made stale.
QorJdbcVersion *get_jdbc_version(uint64_t statement);

// The record of a connection's class; a new one has this version.
QorJdbcVersion *set_jdbc_version(uint64_t connection, QorJdbcForm version);

// The address of a field of the driver's objects, 0 for none; and the object that is there, 0 for null.
uint64_t QorJdbcPlace(QorJdbcVersion *record, uint64_t object, QorJdbcField field);
uint64_t QorJdbcObject(QorJdbcVersion *record, uint64_t object, QorJdbcField field);

// Forgets all records. Shutdown.
void QorDropJdbcVersions();
