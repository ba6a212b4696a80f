// Idle rules: which thread names, locks and calls mean that a thread is idle, which calls belong to the
// system and not to the application, and which states the active view shows.
//
// The rules hold from one "activethreads" request to the next, which replaces them all. Loaded by start-up
// before the worker exists, afterwards read and written by the worker only.
#pragma once

#include <cstdint>

enum : int32_t {
    MAX_CONDITIONS = 150,
    CONDITION_VALUE_SIZE = 256,
    TEMP_STATE_COUNT = 15,
};

struct QorCondition {
    int32_t serverType;               // fourth character of the line's first field
    int32_t kind;                     // 'm' lock, 'c' call, 't' thread name, 'S' system call, 's' state
    char value[CONDITION_VALUE_SIZE]; // the text to compare with
    int32_t matchLength;              // bytes compared: those before the first "*"
};

extern QorCondition gaatconditions[MAX_CONDITIONS];     // kinds 'm', 'c', 't': what is idle
extern QorCondition gasystemconditions[MAX_CONDITIONS]; // kind 'S': what is a system call
extern QorCondition gbatconditions[MAX_CONDITIONS];     // kind 's': states shown; and what fits nowhere else
extern int32_t gacondcnt, gasystemcondcnt, gbcondcnt;   // rules in each table
extern int32_t hasmonitors;                             // 1 once a lock rule has been added
extern int32_t rulesKeepWork; // 1 when the rules leave no thread out that is at work in another tier or waits
                              // for a monitor

// The state names that a kind 's' rule selects by index. The direct road's; not those of ThreadSystem.h.
extern const char *const tempstates[TEMP_STATE_COUNT];

// Drops all rules, brings back the seven default states and adds the rules of `text`, one a line as
// "srvtype|type|value"; a line that starts with "#" is a comment. Cuts the text up in place; null adds none.
void readconditions(char *text);

// Adds one rule. What is malformed or has no room is dropped.
void addcondition(const char *srvtype, const char *type, const char *value);

// 0 when a rule says that the thread, the lock or the call is idle, else 1; 1 for a null name.
int32_t checkThreadName(const char *name);
int32_t checkMonitor(const char *name);
int32_t checkCurrCall(const char *className, const char *method);

// 1 when a rule says that the call is a system call, else 0.
int32_t checkSystemCall(const char *className, const char *method);

// 1 when a state rule holds this number, or names this state; else 0.
int32_t checkPreActive(int32_t state);
int32_t checkState(const char *stateName);
