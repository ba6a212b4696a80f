// What the holding of threads asks of the JVM's structures. Nothing here allocates or logs, but for `name`.
#pragma once

#include "qorthreads.h"

extern const QorHoldTests QOR_HOLD_TESTS;
