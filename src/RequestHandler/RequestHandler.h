// The views of the JVMTI road: what a request asks for, written as records into the reply.
//
// All of it runs on the worker, one request at a time. A view that has nothing to say leaves the reply empty
// or writes a bare section end; none of them fails.
#pragma once

#include <cstdint>

// Answers a thread or memory-activity request: picks the view by the bits of `reqid`, in a fixed order, and
// lets it write behind what stands in `page` (pageSize bytes of storage, terminated). `args` are the nine
// argument slots, each null or a text.
void QorHandleShowJVMRequest(uint32_t reqid, char *page, int32_t pageSize, char **args);

// Answers a memory request. `path` is empty (the memory view), the histogram's word, or the file of a text
// dump. The second argument is always 8 and is not read.
void QorHandleShowMemRequest(char *page, int32_t unused, const char *path, uint32_t reqid);

// Answers with the fields of the object that carries a tag. `withClassChain` is the request's second
// argument.
void QorShowObjectRequest(int32_t tag, int32_t withClassChain, uint32_t reqid, char *page, int32_t pageSize);

// Answers with the locals of one frame: Java thread id, then the frame's identity as the console sends it.
void QorHandlePrintLocalRequest(int32_t tid, int64_t method, int64_t location, int32_t depth, int32_t count,
                                char *page, int32_t pageSize);
