// The Java classes that the agent calls by name, as global references.
//
// Start-up makes them on the thread that calls `initvar`, whose class loader knows the agent's own classes;
// the worker drops them when it leaves. Each is null when the class was not found: what needs it is then
// skipped.
#pragma once

#include <jni.h>

extern jclass e2eclass;      // "qoragent/cJavaCall"
extern jclass jobjclass;     // "java/lang/Object"
extern jclass jstringclass;  // "java/lang/String"
extern jclass gbDbUtilClass; // "qoragent/DbUtil"
