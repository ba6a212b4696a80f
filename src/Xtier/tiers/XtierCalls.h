// Remote calls, files, sockets and the application server's work.
//
// Each reader fills its record from an entry's object: 0, or -1 for a null argument. Worker only, on the
// session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

#include <cstdint>

// The peer of an RMI call and the name of what it calls are in different frames, so the entries of a thread
// add up.
int32_t QorGetRmiCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorRmiCallData *record);

// The name of the file that a thread reads or writes.
int32_t QorGetIOCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorIOCallData *record);

// The work that the server has given a thread.
int32_t QorGetAppServerCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                                 QorAppServerCallData *record);

// The peer of a socket. No frame is known to be a network call yet.
int32_t QorGetNetworkCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                               QorNetworkCallData *record);

// Port and host of the peer of a socket of this process into the record; 0 and "" for anything else.
void QorExtractNetworkSocketData(int32_t fd, QorNetworkCallData *record);
