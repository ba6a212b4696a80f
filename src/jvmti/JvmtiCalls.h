// What more than one reader asks JVMTI. Worker.
#pragma once

#include <cstdint>
#include <jvmti.h>

// Logs a JVMTI error by name; nothing else.
void describe(jvmtiError error);

// 1 when the class is initialised, so that it may be read; else 0.
int32_t QorIsClassInitialized(jclass klass);
