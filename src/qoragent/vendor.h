// What the texts that Java passed say of the JVM and its system.
#pragma once

#include <cstdint>

// 1 when the operating system's name says NIMB.
int32_t IsNimbJvm(const char *osName);

// True when the vendor text names a DOV or Tessar VM; and when the version text isn't of a 1.7 besides.
bool QorVendorIsDov();
bool QorIsEarlyDov();
