// Framework frames: what the QRF framework works on, to be shown in place of the frame.
//
// Worker only, on the session's environment.
#pragma once

#include "CallRecords.h"
#include "LocalList.h"

#include <cstdint>
#include <jni.h>

// Fills qrfObjectName, elExpression or the Groovy fields from an entry of the kinds view or entity, EL and
// Groovy; entries of other kinds change nothing.
void QorReadFrameworkEntry(const QorAllThreadLocalInfoList *entry, QorJSPRequestData *record);

// The name of the page that a web entry shows, into REQUEST_TEXT_SIZE bytes; left alone when it has none.
void QorReadPageName(const QorAllThreadLocalInfoList *entry, char *name);

// The names of the call sites of a script, into the record's rows.
void parseGroovyArray(jobjectArray array, QorJSPRequestData *record);

// The line of `script` that runs call site `maxIndex`, by matching the names of the call sites 0 to maxIndex
// (at most `rows` of them are there) through the text. `maxIndex` above `indexLimit` matches nothing.
int32_t getGroovyCurrentLineNo(const char *script, const char (*callSites)[GROOVY_LINE_SIZE], int32_t rows,
                               int32_t maxIndex, int32_t indexLimit);
