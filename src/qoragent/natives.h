// The small natives: they answer at once on the caller's Java thread, without the worker.
#pragma once

#include <cstdint>
#include <jni.h>

enum : int32_t {
    ADDRESS_TEXT_SIZE = 4192,
    CPU_INFO_SIZE = 128,
};

extern const char *gbstrInstrumentLib; // the JVM's instrumentation library

// Sets the level and with it the rule for locals. The road stays.
void QorSetOptLevel(int32_t level);

// Loads the JVM's instrumentation library and hands it `options` ("jar=args"). 0, -1 when the library can't
// be loaded or there are no options, -2 when it lacks the entry.
int32_t QorLoadJavaAgent(JNIEnv *env, jstring options);

// The threads of the last sample that are still listed, as an array; null when the last request was no
// sample. Empties the list.
jobjectArray QorGetThreadObjects(JNIEnv *env);

// The host's network addresses with their names, "address,name," for each interface that is up, is no
// loopback and has a name. May wait for the name service.
void addvips(char *text, int32_t size);

// Appends a bar.
char *addvipsnew(char *text, int32_t size); // nothing calls it

// CPU figures of machine and process, context switches, scheduling delay and the time of the reading.
void getCpuInfo(char *text, int32_t size);
