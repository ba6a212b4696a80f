#include "library_dump.h"

#include "channel.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "request_text.h"

#include "jvmti/LibraryDump.h"
#include "jvmti/Session.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr const char *DUMPING_VERSIONS[] = {"1.6.", "1.7.", "1.8."};
constexpr const char *DUMPING_VENDORS[] = {"DOV", "Tessar", "Sun", "Hewlett-Packard", "IBM"};

template <int N>
bool ContainsOne(const char *text, const char *const (&words)[N]) {
    for (const char *word : words)
        if (strstr(text, word))
            return true;
    return false;
}

// The JVMs known of old to have a dump of their own, and any whose management table has one.
bool JvmCanDump() {
    return (ContainsOne(vers, DUMPING_VERSIONS) && ContainsOne(vend, DUMPING_VENDORS)) ||
           (jmm && jmm->DumpHeap0);
}

void RefuseDump() {
    snprintf(pagebuf, PAGEBUF_SIZE, "JVM Hprof Heap not enabled for :%s|%s|%s|%s", vend, vers, ext_jvm_id_str,
             os_name);
    QORLOG(LOG_WARNING, "%s", pagebuf);
}

void ReportDump(const char *kind) {
    snprintf(pagebuf, PAGEBUF_SIZE, "%s:%s|%s|%s|%s|Heap details dumped to %s", kind, vend, vers,
             ext_jvm_id_str, os_name, dumpfile);
    QORLOG(LOG_NOTE, "%s", pagebuf);
}

void DumpByLibrary() {
    QorParseDumpRequest(buf);
    if (!dumpfile[0])
        return;
    gbLibraryDumpWritten = 0;
    if (strstr(buf, ".hprof") && !gbIbmJvm) {
        if (QorHprofHeapDump(dumpfile, QorOnJvmtiRoad()) == 0 && gbLibraryDumpWritten)
            ReportDump("JVM Hprof Heap");
    } else if (strstr(buf, ".phd") && gbIbmJvm) {
        if (QorPHDHeapDump(dumpfile) == 0 && gbLibraryDumpWritten)
            ReportDump("JVM PHD Heap");
    }
}

} // namespace

bool QorAnswerLibraryDump() {
    if (!strstr(buf, "showmem|256") || !(strstr(buf, ".hprof") || strstr(buf, ".phd")))
        return false;
    pagebuf[0] = pagebuf[PAGEBUF_SIZE - 1] = 0;
    if (JvmCanDump())
        DumpByLibrary();
    else
        RefuseDump();
    return true;
}
