// The JDBC connections that were seen, for the look-up of a thread by its client port.
//
// 100 entries; when they are full the one added first goes. An entry stands for a connection in the hands of
// one thread and is never refreshed. Worker only.
#pragma once

#include "Xtier/tiers/CallRecords.h"

#include <cstdint>

enum : int32_t { DB_CONNECTIONS = 100 };

extern QorDBRequestData *gbDB_Info; // DB_CONNECTIONS entries; null before the first
extern int32_t iDBInfoIndex;        // entries in use

// Adds the record unless it is known: 0; -1 (logged) for null or when there is no memory.
int32_t QorUpdateDbConnectionInfo(const QorDBRequestData *record);

// Forgets all connections. Shutdown.
void QorDropDbConnections();
