// The detail blocks that follow the states "DB Wait" and "RMI Wait". An empty text is written as the
// placeholder. Any thread, but where said.
#pragma once

#include "qortext.h"

#include <cstdint>

struct QorDatabaseBlock {
    const char *url = "", *user = "";
    uint32_t localPort = 0, remotePort = 0;
    const char *remoteHost = "";
    int32_t sampleTime = 0;
    int64_t sqlRef = 0;
    const char *sqlText = "", *typeName = "";
};

struct QorRmiBlock {
    const char *jndiName = "";
    int32_t callId = 0, port = 0;
    const char *host = ""; // empty: the call isn't known, and nothing of it is written
};

void QorAppendDatabaseBlock(QorText *out, const QorDatabaseBlock &block);
// The older form, without field count, SQL text and type.
void QorAppendShortDatabaseBlock(QorText *out, const QorDatabaseBlock &block);
void QorAppendRmiBlock(QorText *out, const QorRmiBlock &block);

// The blocks of a call of which nothing is known, made at the first call. Worker.
const char *QorEmptyDatabaseBlock();
const char *QorEmptyRmiBlock();
