// What the own fields of java.lang.Class instances refer to: reflection data, ClassValue maps, names.
//
// The JVM's walk over references visits a Class instance for its class's sake and doesn't report the fields
// that the instance has itself. What nothing else holds is missing from the walk, then.
#pragma once

#include <jvmti.h>

// An array of all these objects, as one more start for a walk: a local reference of the caller's frame, to be
// dropped after the walk. Null when there is no memory for it. Worker.
jobject QorHoldMirrorFields(jvmtiEnv *env);
