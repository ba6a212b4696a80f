#include "Capabilities.h"

#include "Session.h"
#include "followRefHackHelper.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <cstring>

QorJvmCapabilities gbQorJvmCapabilitiesObj;

namespace {

constexpr jint JNI_VERSION_OF_GUARDED = 0x10006; // JVMs whose reference walks are guarded
constexpr int LEVEL_CHANGING_THE_JVM = 1; // optimisation level that lets the agent change the running JVM

// A capability by its bit number in jvmtiCapabilities.
enum CapabilityBit : int32_t {
    CAN_TAG_OBJECTS = 0,
    CAN_GET_OWNED_MONITOR_INFO = 5,
    CAN_GET_CURRENT_CONTENDED_MONITOR = 6,
    CAN_GET_MONITOR_INFO = 7,
    CAN_GET_SOURCE_FILE_NAME = 11,
    CAN_GET_LINE_NUMBERS = 12,
    CAN_GENERATE_GC_EVENTS = 31,
    CAN_GET_OWNED_MONITOR_STACK_DEPTH_INFO = 34,
    CAN_SUPPORT_VIRTUAL_THREADS = 44,
};

struct WantedCapability {
    CapabilityBit bit;
    const char *absent;
};

// What the views need, in the order in which it is asked for.
constexpr WantedCapability WANTED[] = {
    {CAN_GET_SOURCE_FILE_NAME, "Information - capability to get source file name : 0"},
    {CAN_GET_LINE_NUMBERS, "Information - capability to view line numbers : 0"},
    {CAN_GET_OWNED_MONITOR_INFO, "Information - capability to get owned monitor info : 0"},
    {CAN_TAG_OBJECTS, "Information - capability to tag objects : 0"},
    {CAN_GET_CURRENT_CONTENDED_MONITOR, "Information - capability to get contended monitors : 0"},
    {CAN_GET_MONITOR_INFO, "Information - capability to get monitors info : 0"},
    {CAN_GENERATE_GC_EVENTS, "Information - gc events capability : 0"},
    {CAN_GET_OWNED_MONITOR_STACK_DEPTH_INFO, "Information - owned monitor stack depth capability : 0"},
    {CAN_SUPPORT_VIRTUAL_THREADS, "Information - virtual threads capability : 0"},
};

bool HasCapability(const jvmtiCapabilities &capabilities, CapabilityBit bit) {
    unsigned char bytes[sizeof capabilities];
    memcpy(bytes, &capabilities, sizeof bytes);
    return (bytes[bit / 8] >> (bit % 8) & 1) != 0;
}

void SetCapability(jvmtiCapabilities *capabilities, CapabilityBit bit, bool value) {
    unsigned char bytes[sizeof *capabilities];
    memcpy(bytes, capabilities, sizeof bytes);
    const unsigned mask = 1u << (bit % 8);
    bytes[bit / 8] = static_cast<unsigned char>(value ? bytes[bit / 8] | mask : bytes[bit / 8] & ~mask);
    memcpy(capabilities, bytes, sizeof bytes);
}

// Zeros when they can't be read.
jvmtiCapabilities PotentialCapabilities() {
    jvmtiCapabilities potential = {};
    if (jvmti->GetPotentialCapabilities(&potential) != JVMTI_ERROR_NONE) {
        QORLOG(LOG_WARNING, "Not able to get potential capabilities");
        potential = {};
    }
    return potential;
}

// Update number of a version text such as "1.6.0_45": the decimal digits from index 6 on.
int32_t UpdateNumber(const char *version) {
    int32_t update = 0;
    if (strnlen(version, 6) < 6)
        return 0;
    for (int i = 6; i < 254 && version[i] >= '0' && version[i] <= '9' && update < 1000000; i++)
        update = update * 10 + (version[i] - '0');
    return update;
}

} // namespace

void QorOpenCapabilities(JNIEnv *env) {
    if (gbiOptimizationLevel != LEVEL_CHANGING_THE_JVM)
        return;
    const jvmtiCapabilities potential = PotentialCapabilities();
    // A JVM that must not be asked for a thread's state is not asked for its monitors either.
    if (gbQorJvmKeepsThreads && (!HasCapability(potential, CAN_GET_OWNED_MONITOR_INFO) ||
                                 !HasCapability(potential, CAN_GET_CURRENT_CONTENDED_MONITOR) ||
                                 !HasCapability(potential, CAN_GET_OWNED_MONITOR_STACK_DEPTH_INFO)))
        init_LockCapabilitiesHack(jvmti);
    // The JVM's own word besides the texts that Java passed: the symbol exists in JVMs to come as well.
    if (strstr(vers, "1.6") && strstr(vend, "Sun") && UpdateNumber(vers) < 50 &&
        env->GetVersion() == JNI_VERSION_OF_GUARDED) {
        init_FollowRefHack();
        QORLOG(LOG_TRACE, "FollowRef optimization is enabled for version %s from vendor %s.", vers, vend);
    }
}

void QorRequestCapabilities() {
    const jvmtiCapabilities potential = PotentialCapabilities();
    jvmtiCapabilities request = {};
    for (const WantedCapability &wanted : WANTED) {
        bool offered = HasCapability(potential, wanted.bit);
        if (wanted.bit == CAN_GET_CURRENT_CONTENDED_MONITOR && gbIbmJvm != 0) {
            offered = false;
            QORLOG(LOG_DETAIL, "For AIX contended monitor support not there.");
        }
        SetCapability(&request, wanted.bit, offered);
        if (!offered)
            QORLOG(LOG_DETAIL, "%s", wanted.absent);
    }
    if (jvmti->AddCapabilities(&request) == JVMTI_ERROR_NONE)
        QORLOG(LOG_NOTE, "Capabilities Added");
    QorInitQorJVMCapabilities();
    QorSetJvmtiMonitorCapability(HasCapability(request, CAN_GET_CURRENT_CONTENDED_MONITOR) ? 1 : 0);
}

void checkCapabilities() {
    jvmtiCapabilities held = {};
    if (!jvmti || jvmti->GetCapabilities(&held) != JVMTI_ERROR_NONE) {
        QORLOG(LOG_NOTE, "  Not able to get current  capabilities");
        return;
    }
    if (!HasCapability(held, CAN_TAG_OBJECTS))
        QORLOG(LOG_ERROR, "  ******can_tag_objects capability is not set."
                          "Copy library libqorcapability to another directory and restart Java with argument "
                          "\"-agentpath:<Absolute path of libqorcapability.so>\" ******\n");
}

bool QorCanSupportVirtualThreads() {
    jvmtiCapabilities held = {};
    return jvmti && jvmti->GetCapabilities(&held) == JVMTI_ERROR_NONE &&
           HasCapability(held, CAN_SUPPORT_VIRTUAL_THREADS);
}

void QorInitQorJVMCapabilities() {
    gbQorJvmCapabilitiesObj = {};
}

void QorSetJvmtiMonitorCapability(int32_t value) {
    gbQorJvmCapabilitiesObj.jvmtiMonitor = value;
}

int32_t QorGetJvmtiMonitorCapability() {
    return gbQorJvmCapabilitiesObj.jvmtiMonitor;
}

void QorSetForkHeapDumpCapability(int32_t value) {
    gbQorJvmCapabilitiesObj.forkHeapDump = value;
}

int32_t QorGetForkHeapDumpCapability() {
    return gbQorJvmCapabilitiesObj.forkHeapDump;
}

void QorSetManagementGCCountCapability(int32_t value) {
    gbQorJvmCapabilitiesObj.managementGCCount = value;
}

int32_t QorGetManagementGCCountCapability() {
    return gbQorJvmCapabilitiesObj.managementGCCount;
}
