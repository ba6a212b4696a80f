#include "vendor.h"

#include "qorlog.h"
#include "qorsettings.h"

#include <cstring>

int32_t IsNimbJvm(const char *osName) {
    if (!osName) {
        QORLOG(LOG_ERROR, "OS Name Passed is NULL");
        return 0;
    }
    if (!strstr(osName, "NIMB"))
        return 0;
    QORLOG(LOG_NOTE, "NIMB OS");
    return 1;
}

bool QorVendorIsDov() {
    return strstr(vend, "DOV") || strstr(vend, "Tessar");
}

bool QorIsEarlyDov() {
    return QorVendorIsDov() && !strstr(vers, "1.7");
}
