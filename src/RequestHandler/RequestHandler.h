// The views of the JVMTI road: what a request asks for, written as records into the reply.
//
// All of it runs on the worker, one request at a time. A view that has nothing to say leaves the reply empty
// or writes a bare section end; none of them fails.
#pragma once

#include "qorrequest.h"

#include <cstdint>

extern const QorViews qorJvmtiViews;

// Answers a thread or memory-activity request: picks the view by the bits of `reqid`, in a fixed order, and
// lets it write after what is in `page` (pageSize bytes of storage, terminated). `args` are the nine
// argument slots, each null or a text.
void QorHandleShowJVMRequest(uint32_t reqid, char *page, int32_t pageSize, char **args);

// Answers a memory request. `path` is empty (the memory view), the histogram's word, or the file of a text
// dump. The second argument is always 8 and is not read.
void QorHandleShowMemRequest(char *page, int32_t unused, const char *path, uint32_t reqid);

// Answers with the fields of the object that carries a tag, class by class from its own class upwards; the
// topmost class is left out. An object that is gone and an array of primitives return nothing. The
// request's flag is not read.
void QorShowObjectRequest(int32_t tag, int32_t flag, uint32_t reqid, char *page, int32_t pageSize);

// Answers with the objects in the locals of a method on a thread's stack; a bare section end when there are
// none. `methodId` is the number that a stack row shows, of 32 bits or of 64. The location and the two
// numbers after it come from the console's frame and are not read.
void QorHandlePrintLocalRequest(int32_t tid, int64_t methodId, int64_t location, int32_t a, int32_t b,
                                char *page, int32_t pageSize);
