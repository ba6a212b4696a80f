// The database connections that were seen on the direct road, for the look-up of a thread by its client port
// and for threads whose own can't be read at the moment.
//
// 100 entries; when they are full the one added first goes. A connection has one entry, and the thread that
// used it last owns it. Connections move, and others take their addresses: what is the same one is known by
// the address as long as no collection has begun, else by its socket. Worker.
#pragma once

#include "Xtier/XtierInsert.h"
#include "Xtier/tiers/CallRecords.h"

#include <cstdint>

enum : int32_t { DIRECT_CONNECTIONS = 100 };

struct QorDirectConnection {
    char url[DB_URL_SIZE];
    char remoteHost[REMOTE_HOST_SIZE];
    char user[DB_USER_SIZE];
    uint32_t localPort, remotePort;
    uint64_t connection; // the object's address, when `collections` was the JVM's count
    uint64_t sqlRef;     // of the field that refers to the SQL text, 0 for none
    char threadName[DB_THREAD_NAME_SIZE];
    char threadKey[DB_THREAD_KEY_SIZE];
    int64_t sampleTime; // seconds since the epoch when the socket was read
    int64_t fd;         // -1: not known
    uint32_t collections;
    QorDirectConnection *prev, *next;
};

extern QorDirectConnection DB_Info[DIRECT_CONNECTIONS];
extern int32_t db_info_index; // entries in use

// The entry of a connection that hasn't moved since it was read, null for none.
QorDirectConnection *QorFindConnection(uint64_t connection);

// Puts what was read into the entry of its socket, or into a new one: the entry.
QorDirectConnection *insert_db_info(const QorDirectConnection &read);

// Makes a thread the entry's owner.
void QorSetConnectionOwner(QorDirectConnection *entry, const char *threadName, const char *threadKey);

// The entry's block. Its texts are the entry's.
QorDatabaseBlock QorBlockOfConnection(const QorDirectConnection &entry);

// Of the first entry in the table: that a thread owns, by name and key; with a local port other than 0. Null
// for none.
const QorDirectConnection *QorConnectionOfThread(const char *threadName, const char *threadKey);
const QorDirectConnection *QorConnectionAtPort(uint32_t localPort);

// Forgets all connections. Shutdown.
void QorDropConnectionList();
