// The methods seen in the open walk, each looked up once: the store behind QorReadFrame.
//
// Its memory is fixed and only touched as far as a walk needs it. When it is full, further methods are asked
// of the JVM frame by frame. Worker only.
#pragma once

#include "ThreadSystem.h"

// Forgets all methods and gives their line tables back. At the close of a walk.
void QorDropMethodFacts();

// Copies a name into NAME_SIZE bytes, cut where it is longer; characters that end a field or a record of the
// reply become blanks. The length of the copy.
int32_t QorCopyName(char *dest, const char *src);
