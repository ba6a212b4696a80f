// Which frames and which objects are of interest: tests on a frame's class and method, and on the JVM
// signature of a local object. All are rows of tables in tier.cpp.
//
// Each gives 1 or 0; a null frame or signature gives 0. Worker only.
#pragma once

#include "jvmti/threads/ThreadSystem.h"

#include <cstdint>

// Tests of frames.
int32_t IsRmiCallDataPresent(const QorFrameRecord *frame);
int32_t IsJSPRequestDataPresent(const QorFrameRecord *frame);
int32_t is_vo_frame(const QorFrameRecord *frame);
int32_t is_eo_frame(const QorFrameRecord *frame);
int32_t is_jspx_frame(const QorFrameRecord *frame);
int32_t isGroovyLineDataPresent(const QorFrameRecord *frame);
int32_t isELExpDataPresent(const QorFrameRecord *frame);
int32_t isGroovyScriptDataPresent(const QorFrameRecord *frame);
int32_t IsDBRequestDataPresent(const QorFrameRecord *frame);
int32_t IsIORequestDataPresent(const QorFrameRecord *frame);
int32_t IsNetworkRequestDataPresent(const QorFrameRecord *frame); // no frame is known to be one
int32_t IsAppServerRequestDataPresent(const QorFrameRecord *frame);

// Tests of objects.
int32_t IsDBFrame(const char *signature);
int32_t IsJSPFrame(const char *signature);
int32_t IsRmiFrame(const char *signature);
int32_t IsIOFrame(const char *signature);
int32_t IsAppServerFrame(const char *signature);
int32_t IsQRFFrame(const char *signature);
int32_t IsQRFJspxFrameObject(const char *signature);
int32_t IsQRFVoFrameObject(const char *signature);
int32_t IsQRFEoFrameObject(const char *signature);
int32_t isQRFGroovyScripFrameObject(const char *signature);
int32_t isQRFGroovyCurrentLineFrameObject(const char *signature);
int32_t isQRFELFrameObject(const char *signature);

// Whether the object is passed over in the search for a frame's object.
bool QorIsPassedOverObject(const char *signature);
// Whether the search for a frame's object ends at this one (any of the object tests but IsQRFFrame).
bool QorIsObjectOfInterest(const char *signature);
