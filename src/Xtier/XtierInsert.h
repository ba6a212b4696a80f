// How cross-tier data gets into a reply.
//
// A sample writes its rows before it knows the data, and notes where the pieces lie that the data will
// replace (LocationList.h). The insertion then copies the reply once, forward, with the real data in the
// place of these pieces. Data without a column goes to the thread's end-to-end block.
//
// A piece is replaced whole or keeps its old text, and the room for all of the old reply is kept: no row is
// lost, however much data there is. Worker only.
#pragma once

#include "LocationList.h"
#include "Xtier/tiers/CallRecords.h"
#include "reply/qortext.h"
#include "reply/wait_blocks.h"

#include <cstdint>

// The class that is shown before "->", with what the framework works on after it.
const char *QorFrameworkClass(QorFramework framework);

// What the blocks of the states "DB Wait" and "RMI Wait" show of a call. Of a database call that isn't known
// (QorIsKnownDatabase) only the numbers and the SQL text.
QorDatabaseBlock QorDatabaseBlockOf(const QorDBRequestData &record);
QorRmiBlock QorRmiBlockOf(const QorRmiCallData &call);

// One pass over a reply.
struct QorInsertion {
    const QorText *oldReply;
    QorText newReply; // `text` is null until the first piece is replaced
    int32_t oldPosition;
    int32_t spare; // bytes that the reply may still grow by
};

// Starts a pass over `reply`, which stays as it is until the pass ends. Room for Java's answer is kept free.
void QorStartInsertion(QorInsertion *insertion, const QorText *reply);

// Replaces the pieces of one thread; a piece whose data is not known keeps its text. Threads come in the
// order of the list. 0, or -1 when a piece found no room or there is no memory: it and the thread's later
// pieces keep their text.
int32_t InsertXtierDataToConsoleBuf(QorInsertion *insertion, const QorXtierLocationInfo &location,
                                    const QorJSPRequestData &web, const QorDBRequestData &database,
                                    const QorRmiCallData &rmi);

// Ends the pass: what has been replaced goes into `reply`, which is the one that the pass was started with.
void QorEndInsertion(QorInsertion *insertion, QorText *reply);

// Puts data into the end-to-end block of the thread: by kind LOCAL_FILE_CALL, LOCAL_NETWORK_CALL, or any
// other for the application server's, which also clears the file. Always 0.
int32_t QorInsertDataToE2EBuf(int64_t threadId, int32_t kind, const QorAppServerCallData &server,
                              const QorIOCallData &file, const QorNetworkCallData &network);

// Marks the thread's end-to-end block: what is shown of it comes in part by a rule known from sources alone.
void QorMarkE2EByReadRule(int64_t threadId);
