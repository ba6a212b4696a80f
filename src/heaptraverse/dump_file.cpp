#include "dump_file.h"

#include "heap_census.h"
#include "heap_usage.h"
#include "scan_records.h"
#include "sunprint/root_lines.h"
#include "thread_roots.h"
#include "traverse.h"

#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>

namespace {

time_t cur_timestamp;

void WriteText(const char *text) {
    QorDumpText(&logfile, text, static_cast<int64_t>(strlen(text)));
}

} // namespace

void QorWriteDirectHeader() {
    char text[64];
    logfile.used = 0;
    snprintf(text, sizeof text, "heap_id=%u|T%d", heap_id, static_cast<int>(cur_timestamp));
    WriteText(text);
    for (const char *field : {hostname, ext_jvm_id_str, vend, vers}) {
        WriteText("|");
        QorDumpField(&logfile, field);
    }
    snprintf(text, sizeof text, "|%d|", NUM_HEAP_SPACES);
    WriteText(text);
    for (int32_t i = 0; i < NUM_HEAP_SPACES; i++) {
        const QorSpaceUsage &usage = heap.spaces[i];
        snprintf(text, sizeof text, "%s|%d|%d|", heapspace[i].name, static_cast<int>(usage.capacity),
                 static_cast<int>(usage.used));
        WriteText(text);
    }
    WriteText("\n");
}

int32_t initTraverse(const char *path) {
    cur_timestamp = time(nullptr);
    *prepend_str = 0;
    if (QorDumpOpen(&logfile, path, DUMP_BUFFER_SIZE) != 0) {
        QORLOG(LOG_NOTE, "QOR Agent Error %s opening file %s", strerror(errno), path);
        QORLOG(LOG_ERROR, "Error initializing heap traversal structures\n");
        return TRAVERSE_NOT_OPENED;
    }
    return 0;
}

int32_t QorWriteDirectDump(QorDirectDumpResult *result) {
    QorScanPlainly();
    QorNoteSpaces();
    result->missingRoots = traverseThread();
    traverseSystem();
    for (int32_t i = 0; i < NUM_HEAP_SPACES; i++) {
        result->spaces[i] = heapspace[i];
        qormemdet(i, &logfile, SCAN_RECORDS | SCAN_REFERENCES, &result->content[i]);
    }
    char text[64];
    snprintf(text, sizeof text, " Finished %d secs\n",
             std::max(0, static_cast<int>(time(nullptr) - cur_timestamp)));
    WriteText(text);
    QorDumpFlush(&logfile);
    return logfile.error;
}

void QorLogDirectDump(const QorDirectDumpResult &result) {
    if (result.missingRoots & NO_JAVA_THREADS)
        QORLOG(LOG_ERROR, "Error traversing Java Threads\n");
    if (result.missingRoots & NO_VM_THREADS)
        QORLOG(LOG_ERROR, "Error traversing JVM Threads\n");
    if (result.missingRoots)
        QORLOG(LOG_DETAIL, "Error traversing threads for oop dump %d", -result.missingRoots);
    QorLogSkipped(result.spaces, result.content);
}
