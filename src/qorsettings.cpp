#include "qorsettings.h"

#include <cstdio>

int32_t gbiOptimizationLevel = 2;
int32_t qormaxbackoff;
int32_t qorretry;
int32_t qor_max_timeout;
int32_t jvm_sighandler_chain;
int32_t qorLockInfoLevel;
int32_t qorDBQuery;
int32_t gbSqlQueryLength = QOR_MAX_SQL_QUERY_SIZE;
int32_t qorGetLocalObjectsQuotaPct;
int32_t qorHandWalkQuotaPct = QOR_HAND_WALK_QUOTA;
int32_t maxStackDepthQueried = 1000;
int32_t maxStackDepthRecorded = 300;
int32_t gbQorSkipLocal;
int32_t gbQorRELocal;

char vend[VENDOR_SIZE];
char vers[VERSION_SIZE];
char os_name[OS_NAME_SIZE];
char webserver[WEBSERVER_SIZE];
char hostname[HOST_NAME_SIZE];
char ext_jvm_id_str[JVM_ID_SIZE];
int32_t ext_jvm_id;
char qorheapdir[HEAP_DIR_SIZE] = "/tmp/";

int32_t gbIbmJvm;
int32_t gbNimbJvm;
int32_t offsetind;

bool QorOnJvmtiRoad() {
    return offsetind == BUILD_JVMTI_UNLISTED || offsetind == BUILD_JVMTI_DOV ||
           offsetind == BUILD_JVMTI_SYMBOLS || offsetind == BUILD_JVMTI_DEFAULT;
}

void QorSetJvmPort(int32_t port) {
    ext_jvm_id = port;
    snprintf(ext_jvm_id_str, sizeof ext_jvm_id_str, "%d", port);
}
