// The records of threads: rows, frames and locks. Each reader returns false when the record has another form;
// what it has stored by then is of no use.
#pragma once

#include "records.h"

namespace qorctl {

// Call text, file, line. Where the JVM is read by address a file may lack its line.
bool ReadFrameGroup(std::string_view call, std::string_view file, std::string_view line, Frame *frame,
                    bool by_address = false);

// A thread row. The form of the active threads has a marker in front, that of the details only where the JVM
// is read by address.
bool ReadThreadRow(std::string_view row, bool with_marker, Thread *thread);

bool ReadStackRow(std::string_view row, Frame *frame);
bool ReadLockWait(std::string_view record, LockWait *wait);
bool ReadOwnedLock(std::string_view record, OwnedLock *owned);
bool ReadParked(std::string_view record, OwnedLock *blocker);

// A row of the view of one stack, and the view's head. A thread whose frames were unavailable has a name and
// nothing else.
bool ReadFrameRow(std::string_view row, Frame *frame);
bool ReadStackHead(std::string_view head, Thread *thread);

// The one row about a lock's holder.
bool ReadHolderRow(std::string_view row, Thread *thread);

} // namespace qorctl
