// The agent's settings: what Java passed at start, and what start-up derived from it.
//
// Written by start-up on the Java thread that calls `initvar` (before the worker exists), unless a line below
// says otherwise; read by everybody. Nothing here is freed.
#pragma once

#include <cstdint>

enum : int32_t {
    VENDOR_SIZE = 128,
    VERSION_SIZE = 255,
    OS_NAME_SIZE = 128,
    WEBSERVER_SIZE = 80,
    JVM_ID_SIZE = 256,
    HEAP_DIR_SIZE = 255,
    HOST_NAME_SIZE = 128,
    QOR_MAX_SQL_QUERY_SIZE = 65536,
    QOR_HAND_WALK_QUOTA = 5, // percent, where nothing else was asked for
};

// Values of `offsetind` with a meaning of their own. 6 to 10 are rows of the direct road.
enum : int32_t {
    BUILD_UNSUPPORTED = -100,
    BUILD_JVMTI_UNLISTED = -64, // treated as the JVMTI road, though no row of `release` gives it
    BUILD_JVMTI_DOV = 65,
    BUILD_JVMTI_SYMBOLS = 98, // JVMTI road with the short symbol list
    BUILD_JVMTI_DEFAULT = 99,
};

extern int32_t gbiOptimizationLevel;       // road selector: 0, 1, 2, 3 or 9; also the native setOptLevel
extern int32_t qormaxbackoff;              // longest back-off of a retry, seconds
extern int32_t qorretry;                   // retry count; the request "qorretry" (worker)
extern int32_t qor_max_timeout;            // seconds a caller waits for a reply; 0 means 5,000
extern int32_t jvm_sighandler_chain;       // non-zero asks for signal chaining on the VMs that need it
extern int32_t qorLockInfoLevel;           // 1 JVMTI or management, 2 management, other: no lock data
extern int32_t qorDBQuery;                 // database query capture, 0 off
extern int32_t gbSqlQueryLength;           // longest SQL text captured, bytes, at most 65,536
extern int32_t qorGetLocalObjectsQuotaPct; // cost quota for local objects, percent; 0 off, 100 no control
extern int32_t qorHandWalkQuotaPct;  // the same for requests by hand, of the last ten seconds; 100 no control
extern int32_t maxStackDepthQueried; // frames asked of the JVM for each thread
extern int32_t maxStackDepthRecorded; // frames kept of each stack
extern int32_t gbQorSkipLocal;        // 1: locals are never fetched; also the native setOptLevel
extern int32_t gbQorRELocal;          // 1: locals are read at once by the reference walk

extern char vend[VENDOR_SIZE];           // JVM vendor
extern char vers[VERSION_SIZE];          // JVM version
extern char os_name[OS_NAME_SIZE];       // operating system
extern char webserver[WEBSERVER_SIZE];   // application server type word, empty when none
extern char hostname[HOST_NAME_SIZE];    // the machine's name
extern char ext_jvm_id_str[JVM_ID_SIZE]; // the JVM's external identifier
extern int32_t ext_jvm_id; // the port that it was made of, 0 for none; the worker writes it as well
extern char qorheapdir[HEAP_DIR_SIZE]; // directory for dumps, ends in "/"; also the request "qorheapdir"

extern int32_t gbIbmJvm;  // 1 when the vendor contains "IBM"
extern int32_t gbNimbJvm; // 1 when the operating system contains "NIMB"
extern int32_t offsetind; // JVM build index; the initialisation thread writes it

// Makes a port the JVM's external identifier. Initialisation thread, or worker.
void QorSetJvmPort(int32_t port);

// The one test for the JVMTI road: `offsetind` is -64, 65, 98 or 99. Any other value is the direct road.
bool QorOnJvmtiRoad();
