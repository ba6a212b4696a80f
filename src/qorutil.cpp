#include "qorutil.h"

#include "qorStrUtils.h"
#include "qorlog.h"

#include <cstdio>
#include <cstdlib>

QorCondition gaatconditions[MAX_CONDITIONS];
QorCondition gasystemconditions[MAX_CONDITIONS];
QorCondition gbatconditions[MAX_CONDITIONS];
int32_t gacondcnt, gasystemcondcnt, gbcondcnt;
int32_t hasmonitors;
int32_t rulesKeepWork;

const char *const tempstates[TEMP_STATE_COUNT] = {
    "DB Wait", "Allocated",    "Initialized",  "Runnable", "Suspended",
    "Lock",    "CondVar Wait", "Object Wait",  "Breakpt",  "Sleeping",
    "Zombie",  "Unknown",      "Network Wait", "IO Wait",  "RMI Wait",
};

namespace {

enum Kind : int32_t {
    KIND_MONITOR = 'm',
    KIND_CALL = 'c',
    KIND_THREAD = 't',
    KIND_SYSTEM_CALL = 'S',
    KIND_STATE = 's',
};

constexpr int32_t SERVER_TYPE_INDEX = 3; // the character of the first field that names the server type
constexpr char KEEP_TYPE[] = "keep";     // how a type begins that has no table
constexpr size_t CALL_SIZE = 255;        // longest call compared, terminator included

// Values of the built-in rules: Runnable, Lock, Network Wait, DB Wait, IO Wait, Object Wait, RMI Wait.
constexpr const char *DEFAULT_STATES[] = {"3", "5", "12", "0", "13", "7", "14"};

// The types with a table of their own, told by how the type begins.
struct ConditionType {
    const char *prefix;
    QorCondition *table;
    int32_t *count;
    Kind kind;
};

constexpr ConditionType CONDITION_TYPES[] = {
    {"monitor", gaatconditions, &gacondcnt, KIND_MONITOR},
    {"currcall", gaatconditions, &gacondcnt, KIND_CALL},
    {"threadname", gaatconditions, &gacondcnt, KIND_THREAD},
    {"systemcall", gasystemconditions, &gasystemcondcnt, KIND_SYSTEM_CALL},
};

bool StartsWith(const char *text, const char *prefix) {
    return strncmp(text, prefix, strlen(prefix)) == 0;
}

void Store(QorCondition *table, int32_t *count, int32_t serverType, int32_t kind, const char *value) {
    QorCondition *rule = &table[(*count)++];
    rule->serverType = serverType;
    rule->kind = kind;
    QorStrncpy(rule->value, value, CONDITION_VALUE_SIZE, static_cast<int32_t>(strlen(value)));
    rule->matchLength = static_cast<int32_t>(strcspn(rule->value, "*"));
}

// A rule for the table of what fits nowhere else, which is also where the overflow of the others goes.
void AddDefaultCall(const char *srvtype, const char *type, const char *value) {
    if (gbcondcnt >= MAX_CONDITIONS) {
        QORLOG(LOG_NOTE, "Can not store more default calls, ignoring call foundtype:%s\n\ttype:%s\n\tval:%s",
               srvtype, type, value);
        return;
    }
    QORLOG(LOG_NOTE, "Default call foundtype:%s\n\ttype:%s\n\tval:%s", srvtype, type, value);
    Store(gbatconditions, &gbcondcnt, srvtype[SERVER_TYPE_INDEX], static_cast<unsigned char>(type[0]), value);
}

bool IsLineEnd(char c) {
    return c == '\n' || c == '\r' || c == 0;
}

// Cuts the line at `line` into its three fields and adds the rule. Returns the next line, or the text's end.
char *ReadRuleLine(char *line) {
    const char *fields[3] = {line, nullptr, nullptr};
    int32_t bars = 0;
    char *p = line;
    for (; !IsLineEnd(*p); p++) {
        if (*p != '|')
            continue;
        *p = 0;
        if (++bars < 3)
            fields[bars] = p + 1;
    }
    const bool last = *p == 0;
    *p = 0;
    addcondition(fields[0], fields[1], fields[2]);
    return last ? p : p + 1;
}

// Skips a comment. It ends at a lone carriage return too, as text that came through the relay has no other
// line end; the pair of both ends it once.
char *SkipComment(char *line) {
    char *p = line + strcspn(line, "\r\n");
    if (p[0] == '\r' && p[1] == '\n')
        p++;
    return *p ? p + 1 : p;
}

bool Matches(const QorCondition &rule, const char *text) {
    return strncmp(text, rule.value, static_cast<size_t>(rule.matchLength)) == 0;
}

bool AnyMatch(const QorCondition *table, int32_t count, Kind kind, const char *text) {
    for (int32_t i = 0; i < count; i++)
        if (table[i].kind == kind && Matches(table[i], text))
            return true;
    return false;
}

bool AnyCallMatch(const QorCondition *table, int32_t count, Kind kind, const char *className,
                  const char *method) {
    char call[CALL_SIZE];
    snprintf(call, sizeof call, "%s->%s", className ? className : "", method ? method : "");
    return AnyMatch(table, count, kind, call);
}

} // namespace

void readconditions(char *text) {
    gacondcnt = gasystemcondcnt = gbcondcnt = rulesKeepWork = 0;
    memset(gaatconditions, 0, sizeof gaatconditions);
    memset(gbatconditions, 0, sizeof gbatconditions);
    for (const char *state : DEFAULT_STATES)
        Store(gbatconditions, &gbcondcnt, 'b', KIND_STATE, state);
    if (!text)
        return;
    while (*text)
        text = *text == '#' ? SkipComment(text) : ReadRuleLine(text);
}

void addcondition(const char *srvtype, const char *type, const char *value) {
    if (!srvtype || !type || !value) {
        QORLOG(LOG_NOTE, "Qoragent : addcondition, either srvtype, type, val is NULL");
        return;
    }
    QORLOG(LOG_DETAIL, "Adding...\n\tsrvtype:%s\n\ttype:%s\n\tval:%s", srvtype, type, value);
    if (strlen(srvtype) <= SERVER_TYPE_INDEX || !type[0] || !value[0])
        return;
    if (StartsWith(type, KEEP_TYPE)) {
        rulesKeepWork = 1;
        return;
    }
    for (const ConditionType &row : CONDITION_TYPES) {
        if (!StartsWith(type, row.prefix) || *row.count >= MAX_CONDITIONS)
            continue;
        Store(row.table, row.count, srvtype[SERVER_TYPE_INDEX], row.kind, value);
        if (row.kind == KIND_MONITOR)
            hasmonitors = 1;
        return;
    }
    AddDefaultCall(srvtype, type, value);
}

int32_t checkThreadName(const char *name) {
    return name && AnyMatch(gaatconditions, gacondcnt, KIND_THREAD, name) ? 0 : 1;
}

int32_t checkMonitor(const char *name) {
    return name && AnyMatch(gaatconditions, gacondcnt, KIND_MONITOR, name) ? 0 : 1;
}

int32_t checkCurrCall(const char *className, const char *method) {
    return AnyCallMatch(gaatconditions, gacondcnt, KIND_CALL, className, method) ? 0 : 1;
}

int32_t checkSystemCall(const char *className, const char *method) {
    return AnyCallMatch(gasystemconditions, gasystemcondcnt, KIND_SYSTEM_CALL, className, method) ? 1 : 0;
}

int32_t checkPreActive(int32_t state) {
    for (int32_t i = 0; i < gbcondcnt; i++)
        if (gbatconditions[i].kind == KIND_STATE && strtol(gbatconditions[i].value, nullptr, 10) == state)
            return 1;
    return 0;
}

int32_t checkState(const char *stateName) {
    if (!stateName)
        return 0;
    for (int32_t i = 0; i < gbcondcnt; i++) {
        if (gbatconditions[i].kind != KIND_STATE)
            continue;
        const long state = strtol(gbatconditions[i].value, nullptr, 10);
        if (state >= 0 && state < TEMP_STATE_COUNT && strcmp(stateName, tempstates[state]) == 0)
            return 1;
    }
    return 0;
}
