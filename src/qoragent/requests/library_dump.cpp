#include "library_dump.h"

#include "dispatch.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "request_text.h"

#include "jvmti/Session.h"
#include "jvmti/heap/LibraryDump.h"

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
    QOR_REPLY("JVM Hprof Heap not enabled for :%s|%s|%s|%s", vend, vers, ext_jvm_id_str, os_name);
    QORLOG(LOG_WARNING, "%s", pagebuf);
}

void DumpByLibrary(bool hprof, bool phd) {
    QorParseDumpRequest(buf);
    gbLibraryDumpWritten = 0;
    const char *kind = nullptr;
    if (!dumpfile[0])
        return;
    if (hprof && !gbIbmJvm) {
        kind = "JVM Hprof Heap";
        QorHprofHeapDump(dumpfile, QorOnJvmtiRoad());
    } else if (phd && gbIbmJvm) {
        kind = "JVM PHD Heap";
        QorPHDHeapDump(dumpfile);
    }
    if (!gbLibraryDumpWritten)
        return;
    QOR_REPLY("%s:%s|%s|%s|%s|Heap details dumped to %s", kind, vend, vers, ext_jvm_id_str, os_name,
              dumpfile);
    QORLOG(LOG_NOTE, "%s", pagebuf);
}

} // namespace

bool QorAnswerLibraryDump() {
    const bool hprof = strstr(buf, ".hprof"), phd = strstr(buf, ".phd");
    if (!strstr(buf, DUMP_REQUEST) || !(hprof || phd))
        return false;
    if (JvmCanDump())
        DumpByLibrary(hprof, phd);
    else
        RefuseDump();
    return true;
}
