// The symbols of the JVM library that the agent wants, by kind of JVM.
//
// A list is two decimal digits, the number of entries, and that many texts, each ended by a zero byte. The
// first entry names libraries, with bars between them; the others are symbols and fill the slots from 1 on.
// An entry may be empty.
#pragma once

extern const char sunsymGCC3[]; // what reading a JVM of 1.5 by address needs
extern const char jtisym[];     // what the guards of level 1 and signal chaining need
extern const char dovsym[];     // what a DOV VM offers beside JVMTI; selected for it and not looked up
