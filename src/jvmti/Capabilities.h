// What the JVM lets the agent do, and what the agent makes of it.
#pragma once

#include <cstdint>
#include <jni.h>

// What the agent itself can do on this JVM.
struct QorJvmCapabilities {
    int32_t jvmtiMonitor;      // locks by JVMTI
    int32_t forkHeapDump;      // heap dumps in a forked child
    int32_t managementGCCount; // collection counts by java.lang.management
};

extern QorJvmCapabilities gbQorJvmCapabilitiesObj;

// At the level that allows it, makes the JVM offer what it holds back, before it is asked what it offers.
// Start-up, with `jvmti` open.
void QorOpenCapabilities(JNIEnv *env);

// Asks for each capability that the views need and the JVM offers. The monitor flag follows what was asked,
// not the answer. Start-up.
void QorRequestCapabilities();

// Warns in the log when objects can't be tagged. Worker.
void checkCapabilities();

// Whether the JVM has granted the session questions about virtual threads. Worker.
bool QorCanSupportVirtualThreads();

// The capability record: cleared, then set and read field by field.
void QorInitQorJVMCapabilities();
void QorSetJvmtiMonitorCapability(int32_t value);
int32_t QorGetJvmtiMonitorCapability();
void QorSetForkHeapDumpCapability(int32_t value);
int32_t QorGetForkHeapDumpCapability();
void QorSetManagementGCCountCapability(int32_t value);
int32_t QorGetManagementGCCountCapability();
