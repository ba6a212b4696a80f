#include "server_port.h"

#include "qorsettings.h"
#include "startup.h"

#include "Xtier/ListeningPorts.h"

#include <cstdio>

std::atomic<int32_t> relayPort;

void QorNameJvmByPort() {
    uint16_t ports[2];
    if (ext_jvm_id_str[0] || !QorOnJvmtiRoad() ||
        QorListeningPorts(ports, 2, static_cast<uint16_t>(relayPort)) != 1)
        return;
    ext_jvm_id = ports[0];
    snprintf(ext_jvm_id_str, sizeof ext_jvm_id_str, "%d", ext_jvm_id);
}
