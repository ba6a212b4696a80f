// The agent's session with the virtual machine: what it got from the JVM at start, and how it ends.
//
// Start-up opens it on the Java thread that calls `initvar` (QorInitJmm, then QorDovOnLoad), before the
// worker exists; the worker attaches itself and is from then on the only thread that may use `jvmti` and
// `jvmtijni_env`. Shutdown calls QorDovOnUnload and QorDetachThread on the worker. A failed start leaves what
// was set before the failure in force: every reader asks before it uses a class, a table or a capability.
//
// A start logs one line per failure; it returns none of them, as each lets the rest work.
#pragma once

#include "Capabilities.h"

#include <cstdint>
#include <jni.h>
#include <jvmti.h>

// The JVM's management table in the slot order of its first version, whatever version the running JVM has.
// Only the two functions that the agent calls are there; the other slots are null.
struct JmmTable {
    void *unused0[13];
    jlong(JNICALL *GetLongAttribute)(JNIEnv *env, jobject bean, jint attribute);
    void *unused14[16];
    jint(JNICALL *DumpHeap0)(JNIEnv *env, jstring path, jboolean live);
};

// The extended management table; only its first and its sixth entry are called.
struct JmmExtTable {
    jlong(JNICALL *GetLongAttribute)(JNIEnv *env, jobject bean, jint attribute);
    void *unused1[4];
    jint(JNICALL *GetDoubleAttribute)(JNIEnv *env, jobject bean, jint key, jint unused, jdouble *out);
};

extern JavaVM *jr_jvm;                 // null until a session has been opened; outlives it, for the detach
extern JavaVM *qor_vm;                 // the VM on either road; start-up sets it first of all
extern jvmtiEnv *jvmti;                // the one JVMTI environment; disposed of at unload
extern JNIEnv *jvmtijni_env;           // start-up's environment, then the worker's
extern jclass threadClass;             // java.lang.Thread, global reference or null
extern jclass hashTableClass;          // java.util.Hashtable, global reference or null
extern jclass gbjcManagementClass;     // java.lang.management.ManagementFactory, global reference or null
extern jclass ownableClass;            // the class of locks that have an owner, global reference or null
extern jfieldID idField;               // the long field of Thread that holds the Java thread id
extern jfieldID parkBlockerField;      // the field of Thread that holds what it is parked by, or null
extern int64_t gbiAgentWorkerThreadId; // the worker's Java thread id, -1 until it has named itself
extern bool gbQorJvmKeepsThreads;      // false: JVMTI must not be asked for a thread's state
extern const JmmTable *jmm;            // null when the JVM's table is of no known version
extern const JmmExtTable *jmm_ext;     // null on all but a few JVMs

extern void *(JNICALL *fnptrJVM_GetManagement)(jint version);
extern jlong(JNICALL *fnptrJVM_TotalMemory)();
extern jlong(JNICALL *fnptrJVM_MaxMemory)();
extern jlong(JNICALL *fnptrJVM_FreeMemory)();

// Names looked up in the JVM library.
extern const char *gbQorJVMLibName;
extern const char *gbQorJVMGetManagement;
extern const char *gbQorJVMTotalMemory;
extern const char *gbQorJVMMaxMemory;
extern const char *gbQorJVMFreeMemory;

extern int32_t iCanGetOSThreadID; // 1 when funcGetOSThreadID is there
extern int32_t iCanTriggerVmDump; // 1 when funcTriggerVmDump is there
extern jvmtiExtensionFunction funcGetOSThreadID;
extern jvmtiExtensionFunction funcTriggerVmDump;
extern int32_t igbIsJvmtiDOV; // 1 when jmm_ext was got
extern int32_t implCount;     // complete starts

// Finds the management table. 0, or -1 with `jmm` null when the library, the symbol or a table of a known
// version is missing. Needs no JNI environment.
int32_t QorInitJmm();

// Opens the session with the caller's environment. 0 for a complete start, else -1.
int32_t QorDovOnLoad(JNIEnv *env);

// Drops what the session holds: class references and the JVMTI environment. `env` is not read; the calling
// thread's own environment is used. Safe without a session and safe twice. Always 0.
int32_t QorDovOnUnload(JNIEnv *env);

// Attaches the calling native thread as a daemon under the worker's name, and makes its environment the
// session's; DetachThread undoes it. Without a session they do nothing. Always 0.
int32_t QorAttachThread();
int32_t QorDetachThread();

// Names the current thread (which must be attached) and stores its Java thread id as the worker's.
void setThreadNameAndGetThreadID(const char *name);

// Looks for the two IBM extension functions: 1 when both are there, else 0.
int32_t QorGetIBMExtension();

// The operating system's id of a Java thread by the IBM extension, -1 on failure. Worker; needs
// iCanGetOSThreadID.
int64_t QorGetOSThreadID(jthread thread);

// Looks `idField` and `parkBlockerField` up anew, if Thread is initialised. True when the first is there.
bool QorRefreshIdField();

// Reads a Java thread id through `idField`: false, with *out as it was, without the field (which is logged)
// or for a dead reference.
bool QorReadThreadId(jthread thread, int64_t *out);

// Logs that a local frame could not be opened.
void QorLogNoFrame(int32_t threshold);

// Reads an attribute of the extended management table; false, with *value as it was, when there is no table.
bool QorReadExtendedAttribute(int32_t key, double *value);
