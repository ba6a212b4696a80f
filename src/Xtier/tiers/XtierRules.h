// What the rules of qortiers.h have of a thread: database call, request, remote call and file.
//
// The entries of a thread's frames add up: for each way of an object whose field is still empty, follow it
// and store what it leads to. Of two products that call each other the one nearer to the top of the stack
// counts. A way that doesn't fit the object (another version's fields, a null on the way, an index outside)
// leaves its field empty. Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

struct QorRuleRecords {
    QorDBRequestData database;
    QorRmiCallData rmi;
    char url[REQUEST_TEXT_SIZE];
    char file[DB_URL_SIZE];
    uint32_t kindsByRead;                         // TIER_OBJECTS that a rule marked "read" has added to
    std::string_view databaseProduct, rmiProduct; // whose calls they are; the text belongs to the rules
};

void QorClearRuleRecords(QorRuleRecords *records);

// Reads the objects of all entries of one thread, of which `newest` is the first in the list, from the top of
// its stack to the bottom; in a second pass by the ways that are marked "last".
void QorReadThreadByRules(const QorAllThreadLocalInfoList *newest, int64_t threadId, QorRuleRecords *records);
