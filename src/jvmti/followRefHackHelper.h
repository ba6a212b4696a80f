// Guards for the reference walk, and capabilities that the JVM holds back: both change the running JVM, by
// addresses inside its library, and are asked for at optimisation level 1 only. Without the address each of
// them does nothing.
//
// The walk's guard: once a walk's callback has asked for the end, the JVM still has work to do.
// For that span its pointer to the heap object leads to an object of the agent's, whose methods put the true
// pointer back and do nothing else. Only the JVMs of Sun's 1.6 before update 50 get it.
#pragma once

#include <cstdint>
#include <jvmti.h>

extern void **gbUniverseCollectedHeap; // the JVM's pointer to its heap object, null while there is no guard
extern void *gbQorStaticCollectedHeap; // what it holds by rights
extern void *gbQorCollectedHeapHack;   // the agent's object

// Makes the JVM offer the lock capabilities that it holds back, by setting their bits in its own record. The
// record is written only where it lies in writable memory and holds nothing that the JVM doesn't offer. Asks
// `env` (null: it does nothing) what that is. Start-up.
void init_LockCapabilitiesHack(jvmtiEnv *env);

// Prepares the guard, for a JVM in which the heap object has the shape that the agent's object has. Start-up.
void init_FollowRefHack();

// Puts the agent's object in place. For a heap walk's callback, right before it asks for the end: it writes
// one word and logs nothing, as a thread that the JVM has stopped may hold the log's lock.
void set_FollowRefHack();

// Puts the true object back. Any thread of the JVM, by way of the agent's object; logs nothing either.
void reset_FollowRefHack();

// To be called right after each walk: writes the lines of what has happened since the last call, and puts the
// true object back when no call of the JVM has done so. Worker.
void check_FollowRefHack();

// Notes that a method of the agent's object was called that the guard doesn't expect. 1 to 63.
void QorNoteHeapCheck(int32_t number);
