#include "connection_list.h"

#include "Xtier/AgingList.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorutil/vm_heap.h"

#include <cstring>

QorDirectConnection DB_Info[DIRECT_CONNECTIONS];
int32_t db_info_index;

namespace {

QorAgingList<QorDirectConnection> age;

template <typename Test>
QorDirectConnection *FirstOf(Test test) {
    for (int32_t i = 0; i < db_info_index; i++)
        if (test(DB_Info[i]))
            return &DB_Info[i];
    return nullptr;
}

QorDirectConnection *TakeOldest(const QorDirectConnection &added) {
    QORLOG(LOG_DETAIL, "QOR Agent: Aging out JDBC Conn ID %d for JDBC Conn ID %d",
           static_cast<int>(age.oldest->localPort), static_cast<int>(added.localPort));
    return QorTakeOldest(&age);
}

QorDirectConnection *NewEntry(const QorDirectConnection &added) {
    QorDirectConnection *entry =
        db_info_index < DIRECT_CONNECTIONS ? &DB_Info[db_info_index++] : TakeOldest(added);
    QorLinkAsNewest(&age, entry);
    return entry;
}

} // namespace

QorDirectConnection *QorFindConnection(uint64_t connection) {
    const uint32_t collections = QorCollectionCount();
    return FirstOf([=](const QorDirectConnection &entry) {
        return connection != 0 && entry.connection == connection && entry.collections == collections;
    });
}

QorDirectConnection *insert_db_info(const QorDirectConnection &read) {
    QorDirectConnection *entry = FirstOf([&read](const QorDirectConnection &known) {
        return known.fd == read.fd && known.localPort == read.localPort &&
               known.remotePort == read.remotePort;
    });
    if (!entry)
        entry = NewEntry(read);
    QorDirectConnection *const prev = entry->prev, *const next = entry->next;
    *entry = read;
    entry->prev = prev;
    entry->next = next;
    return entry;
}

void QorSetConnectionOwner(QorDirectConnection *entry, const char *threadName, const char *threadKey) {
    QorStrncpy(entry->threadName, threadName, sizeof entry->threadName, sizeof entry->threadName);
    QorStrncpy(entry->threadKey, threadKey, sizeof entry->threadKey, sizeof entry->threadKey);
}

QorDatabaseBlock QorBlockOfConnection(const QorDirectConnection &entry) {
    QorDatabaseBlock block;
    block.url = entry.url;
    block.user = entry.user;
    block.localPort = entry.localPort;
    block.remotePort = entry.remotePort;
    block.remoteHost = entry.remoteHost;
    block.sampleTime = static_cast<int32_t>(entry.sampleTime);
    block.sqlRef = static_cast<int64_t>(entry.sqlRef);
    return block;
}

const QorDirectConnection *QorConnectionOfThread(const char *threadName, const char *threadKey) {
    return FirstOf([=](const QorDirectConnection &entry) {
        return strncmp(entry.threadName, threadName, sizeof entry.threadName - 1) == 0 &&
               strncmp(entry.threadKey, threadKey, sizeof entry.threadKey - 1) == 0;
    });
}

const QorDirectConnection *QorConnectionAtPort(uint32_t localPort) {
    return FirstOf(
        [=](const QorDirectConnection &entry) { return localPort != 0 && entry.localPort == localPort; });
}

void QorDropConnectionList() {
    db_info_index = 0;
    age = {};
}
