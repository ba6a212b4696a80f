// The thread-local list: the frames of a sample whose locals are wanted, newest first.
//
// The views list a frame while they walk it (AddToThreadLocalInfoList), one pass of LocalWalk.h then attaches
// an object to each entry, the readers turn the objects into call records, and the list is freed with the
// view. The method and class texts belong to the walk of ThreadSystem.h, so a list ends before its walk.
// Freed entries are kept for the next sample, up to a number, and are not cleared but for their references.
//
// Worker only.
#pragma once

#include "qortiers.h"
#include "reply/record_facts.h"

#include <cstdint>
#include <jni.h>

struct QorThreadRecord;

// What a listed frame is read for.
enum QorLocalKind : int32_t {
    LOCAL_WEB_REQUEST = 0,
    LOCAL_DATABASE_CALL = 1,
    LOCAL_VIEW_OR_ENTITY = 3,
    LOCAL_RMI_CALL = 4,
    LOCAL_EL_EXPRESSION = 5,
    LOCAL_GROOVY = 6, // the line being run, or the script
    LOCAL_FILE_CALL = 7,
    LOCAL_NETWORK_CALL = 8,
    LOCAL_APP_SERVER_CALL = 9,
    LOCAL_BY_RULES = 10, // all that the rules of qortiers.h have for the frame
};

enum : int32_t {
    LOCAL_SIGNATURE_SIZE = 1024,
    LOCAL_OBJECT_SLOTS = 20,
    LOCAL_RULE_OBJECTS = 8, // of a frame; further ones are passed over
};

// An object that the rules have, with its `object` lines.
struct QorRuleObject {
    jobject object; // global reference
    QorTierObjects lines;
};

struct QorAllThreadLocalInfoList {
    int64_t serial;   // 0 for the first entry of a sample, one more for each later one
    int64_t threadId; // Java thread id, QorThreadRecord.tid
    jobject threadRef;
    int32_t frameIndex;  // depth when the snapshot was taken
    int64_t frameMethod; // jmethodID
    char threadName[NAME_SIZE];
    const char *methodName;                  // never null
    const char *className;                   // never null, dotted
    int32_t kind;                            // QorLocalKind
    int32_t thickDriver;                     // tessar_thick_driver when the frame was listed
    jobject objLocalVarHandle;               // global reference to the chosen object; null when there is none
    char strSignature[LOCAL_SIGNATURE_SIZE]; // JVM signature of the chosen object, "" when there is none
    int32_t localCount;                      // locals caught for this frame
    jobject localObjects[LOCAL_OBJECT_SLOTS]; // with getObjOpt: global references prepared for the walk
    uint32_t tiers;                           // kinds of the frame by the rules, TIER_OBJECTS
    int32_t ruleObjectCount;
    QorRuleObject ruleObjects[LOCAL_RULE_OBJECTS]; // of LOCAL_BY_RULES
    QorAllThreadLocalInfoList *next;               // towards older entries
    QorAllThreadLocalInfoList *prev;               // towards newer entries; set by the walk
};

// 1 on the JVM builds whose references the walk can fill: new entries bring some along.
extern int32_t getObjOpt;

// Pushes an entry for the frame at the list's head. 0, or -1 (logged) for a null frame or when there is no
// memory: the list is as it was.
int32_t AddToThreadLocalInfoList(const QorThreadRecord *thread, const QorFrameRecord *frame,
                                 QorAllThreadLocalInfoList **list, int32_t kind);

// The entry's frame as the frame tests see it: class and method.
QorFrameRecord QorFrameOfEntry(const QorAllThreadLocalInfoList *entry);

// Drops the references of the objects that the rules have.
void QorDropRuleObjects(QorAllThreadLocalInfoList *entry);

// Drops the entries that were pushed since `formerHead` (null: all) was the head: their thread gets no row.
void QorCutThreadLocalInfoList(QorAllThreadLocalInfoList **list, QorAllThreadLocalInfoList *formerHead);

// Drops all entries and their references. A null list is fine.
void FreeQorAllThreadLocalInfoList(QorAllThreadLocalInfoList *list);

// Gives the kept entries back to the allocator.
void QorDropLocalListPool();
