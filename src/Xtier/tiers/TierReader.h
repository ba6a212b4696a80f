// The one reader of the tables and of the rules: follows a way and stores what it leads to by its form.
//
// Worker only, on the session's environment.
#pragma once

#include "ObjectMap.h"
#include "tier.h"

#include <cstdint>
#include <jni.h>

// Stores what a way from `start` has led to. `dest` is the field, of `size` bytes; for FORM_DESCRIPTOR a
// QorIOCallData, for FORM_SQL and FORM_SOCKET a QorDBRequestData, for FORM_PEER and FORM_REMOTE_URL a
// QorRmiCallData. A text is cleared first, and an empty one is nothing. False when nothing was stored.
bool QorStoreValue(QorTierForm form, const QorPathEnd &found, jobject start, void *dest, int32_t size);

// Reads by the tables what an object has for one record, which it stores field by field at `record`: 1 when
// the last way led somewhere, -1 when it didn't, 0 when the object has nothing for the record in frames of
// this method.
int32_t QorReadByTables(jobject object, const char *signature, const char *method, QorTierRecord kind,
                        void *record);

// The path of the first way to a field, null for none.
const char *QorWayTo(const QorTableObject &row, const QorTierTarget &target);

// The text of a way's end, fit for a record. False for an empty one and for any other end.
bool QorReadText(const QorPathEnd &found, char *dest, int32_t capacity);
