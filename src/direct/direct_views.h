// The views of the direct road: what a request asks for, written as records into the reply. Worker.
#pragma once

#include "qorrequest.h"

#include <cstdint>

// Asked only once the road's readers are ready.
extern const QorViews qorDirectViews;

// The text of the java.lang.String that a handle, such as a block's sqlRef, leads to; any number will do.
// False, with `dst` undefined, for anything else, while objects move, and where the road's readers aren't
// ready.
bool QorReadHandle(uint64_t handle, char *dst, int32_t size);
