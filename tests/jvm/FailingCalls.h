// Calls that fail on demand: the agent's calls to the C library, through the linker's --wrap, and those to
// JVMTI and JNI, through copies of their tables. A place is a call together with its callers.
#pragma once

#include <cstdint>
#include <jvmti.h>
#include <string>

// From now on the first call from a place that hasn't failed yet fails, once, on any thread and in copies of
// the process too.
void ArmFailingCall();

// Ends that. Returns the place that failed, "" when none did: the call and addresses for addr2line.
std::string DisarmFailingCall();

// How often the agent has called perror.
int64_t Complaints();

// Blocks that the agent has allocated and not freed.
int64_t AllocatedBlocks();

// Global references that environments with failing calls have made and not deleted.
int64_t GlobalReferences();

// Put the failing calls into an environment's table. Null is ignored.
void WrapJvmti(jvmtiEnv *env);
void WrapJni(JNIEnv *env);
