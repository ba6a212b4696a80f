// Database calls and web requests by the rules of qortiers.h: for each way of an entry's object whose field
// in the record is still empty, follow it and store what it leads to.
//
// Nothing runs Java code or a class's initialiser. A way that doesn't fit the object (another version's
// fields, a null on the way, an index outside) leaves its field empty. Worker only, on the session's
// environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

// Whether anything was found.
bool QorReadDatabaseByRules(const QorAllThreadLocalInfoList &entry, QorDBRequestData *record);

// A request's URL into REQUEST_TEXT_SIZE bytes.
void QorReadUrlByRules(const QorAllThreadLocalInfoList &entry, char *url);
