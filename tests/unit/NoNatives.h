// JNI for a test without a JVM.
#pragma once

#include <algorithm>
#include <jni.h>

// A table of functions that do nothing and return 0.
inline JNINativeInterface_ NoNatives() {
    JNINativeInterface_ table;
    auto *const nothing = reinterpret_cast<void *>(static_cast<jlong (*)()>([] { return jlong{0}; }));
    std::fill_n(reinterpret_cast<void **>(&table), sizeof table / sizeof nothing, nothing);
    return table;
}
