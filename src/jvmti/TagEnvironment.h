// A separate JVMTI environment for one heap walk.
//
// Tags belong to an environment. A walk that tags classes or objects does so in an environment that is thrown
// away with its tags: they never meet those by which the session knows objects, they keep no memory and they
// cost later collections nothing. Worker only.
#pragma once

#include <cstdint>
#include <jvmti.h>

// A new environment that can tag, and nothing else; null (logged) when the JVM refuses it.
jvmtiEnv *QorOpenTagEnvironment();

// Throws it away with all its tags, which takes up to a second when millions of objects are tagged. Null does
// nothing.
void QorCloseTagEnvironment(jvmtiEnv *env);

// Tells the JVM that `count` local references have just come into the open frame, so that its checks see
// them expected.
void QorExpectLocalRefs(int32_t count);
