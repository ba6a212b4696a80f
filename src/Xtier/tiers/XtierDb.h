// Database calls: which database a thread inside the JDBC driver talks to, and what it asked.
//
// Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"
#include "tier.h"

#include <cstddef>
#include <cstdint>
#include <jni.h>

// Fills the record from an entry's object: 0, or -1 for a null argument. The call is known when both url and
// user are filled. tessar_thick_driver says whether the native driver is at work; the caller sets it from the
// entry.
int32_t QorGetDBRequestDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                             QorDBRequestData *record);

// Reads an object of the tables that is FRAME_DATABASE. At once, from a single frame, less is read: no SQL
// text, and of a layered connection the beginning of its URL.
enum QorReading : int32_t { READ_ENTRY, READ_AT_ONCE };
void QorReadDatabaseObject(const QorTableObject &row, jobject object, QorReading reading,
                           QorDBRequestData *record);

// Forgets which classes of connections have no statements. Shutdown.
void QorForgetDriverClasses();

// Descriptor of the connection's socket. `directConnection`: the connection itself holds the network session,
// else its "db_access" does. 0, with *fd -1 for a socket that was closed, or -1.
int32_t QorGetFdFromConnection(jobject connection, int32_t directConnection, int64_t *fd);

// Descriptor from the native driver's own memory, read without risk: whatever the addresses are, the worst
// answer is -1.
int32_t QorGetFdFromThickDriver(int64_t *fd, jobject dbAccess);

// The same from what c_state holds: its pointers from number `firstStep` on, of which 0 is read at `start`
// itself. False, with what is missing in the log and *fd as it was. Any thread.
bool QorFollowThickDriver(uint64_t start, size_t firstStep, int64_t *fd);

// Descriptor of a java.net.Socket, by the fields of the JVM's own classes. 0, or -1 for any other object.
int32_t QorGetFdFromSocket(jobject socket, int64_t *fd);

// A statement's text into the record, with its id when it is cut; nothing without `dbquery`.
void QorReadSqlText(jstring sql, QorDBRequestData *record);

// What tells one connection from another in the cache: the hash code of an object that no other one has.
void QorReadConnectionHash(jobject object, QorDBRequestData *record);

// Ports and peer of a socket into the record; for anything else ports 0 and no host.
void QorExtractDBSocketData(int64_t fd, QorDBRequestData *record);

// Reads a statement of the Sybase driver. Its frames are not listed.
void QorExtractDbInfoFromSybaseDriver(jobject statement, QorDBRequestData *record); // nothing calls it

// The 13-character id of a SQL text, from the Java side, into 16 bytes; untouched when it is unavailable.
void getSqlIdFromSqlText(jstring sql, char *id);

// Puts "!", the id of the whole text and "!" at the end of a text cut at gbSqlQueryLength.
void appendSqlIdToSqlText(char *text, jstring sql);
