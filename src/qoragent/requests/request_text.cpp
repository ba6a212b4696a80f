#include "request_text.h"

#include "qorStrUtils.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <cstdio>
#include <cstring>

namespace {

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// A comma that ends a value: the head of the next pair follows it.
bool StartsPair(const char *comma) {
    return comma[0] == ',' && IsDigit(comma[1]) && comma[2] == '=';
}

char *FindPair(char *text) {
    for (; (text = strchr(text, ',')) != nullptr; text++)
        if (StartsPair(text))
            return text;
    return nullptr;
}

const char *SkipFields(const char *text, int count) {
    for (; text && count > 0; count--)
        text = QorNextField(text);
    return text;
}

} // namespace

const char *QorNextField(const char *text) {
    const char *bar = QorStrchr(text, FIELD_BAR);
    return bar ? bar + 1 : nullptr;
}

char *QorNextField(char *text) {
    return const_cast<char *>(QorNextField(static_cast<const char *>(text)));
}

uint32_t QorParseNumber(const char *text) {
    uint32_t value = 0;
    for (; *text && *text != FIELD_BAR; text++)
        value = value * 10 + (static_cast<unsigned char>(*text) - static_cast<uint32_t>('0'));
    return value;
}

int32_t QorParseArguments(char *field, char **slots) {
    char *equals = strchr(field, '=');
    if (!equals) {
        slots[0] = nullptr;
        return 0;
    }
    int32_t set = 0;
    char *pair = FindPair(equals);
    while (pair) {
        const int slot = pair[1] - '0';
        char *value = pair + 3;
        pair[0] = 0;
        pair = FindPair(value);
        if (slot >= CONSOLE_ARG_COUNT)
            continue;
        slots[slot] = value;
        set++;
    }
    return set;
}

void QorUnpackFlags(uint32_t flags) {
    no_gc = flags & FLAG_NO_GC;
    sp_null_enable = gbIbmJvm ? 0 : flags & FLAG_SP_NULL;
    poll_details = flags & FLAG_POLL_DETAILS;
    trace_single_thread_details = flags & FLAG_TRACE_SINGLE_THREAD;
    show_jsp_info = flags & FLAG_SHOW_JSP_INFO;
    get_system_data = flags & FLAG_SYSTEM_DATA;
    trace_all_threads = flags & FLAG_TRACE_ALL_THREADS;
    cost_wanted = flags & FLAG_COST;
    copy_flags = flags & (FLAG_COPY | FLAG_NO_COPY);
    no_locals = flags & FLAG_NO_LOCALS;
    figures_wanted = flags & FLAG_FIGURES;
    qorIsPollOrTrace = (flags & FLAG_NOT_A_POLL) == 0;
}

void QorParseDumpRequest(const char *request) {
    dumpfile[0] = 0;
    heap_id = 0;
    const char *name = SkipFields(request, 3);
    if (!name)
        return;
    const char *id = QorNextField(name);
    const int length = static_cast<int>(id ? id - 1 - name : static_cast<long>(strlen(name)));
    if (length == 0)
        return;
    snprintf(dumpfile, sizeof dumpfile, "%.*s%.*s", HEAP_DIR_SIZE, qorheapdir, length, name);
    // The JVM reads on after a character that the cut has torn.
    QorStrncpy(dumpfile, dumpfile, sizeof dumpfile, sizeof dumpfile);
    if (id)
        heap_id = QorParseNumber(id);
}
