// Guards for the reference walk, and capabilities that the JVM holds back: both change the running JVM and
// are asked for at optimisation level 1 only.
#pragma once

// Makes the JVM offer the lock capabilities that it holds back.
void init_LockCapabilitiesHack();

// Prepares the swap of the JVM's heap pointer for the end of an aborted walk.
void init_FollowRefHack();
