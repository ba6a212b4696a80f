// What a thread's record says about the tiers around the JVM: the detail block after its state, and what the
// Java side adds after that.
#pragma once

#include "decode.h"
#include "records.h"

namespace qorctl {

// Reads the state, its detail block and what was added, from the fields of a row that start at the state.
bool ReadStateOn(const Fields &field, Thread *thread);

// The seven fields of a database call as the view of one stack has them.
bool ReadShortDbWait(const Fields &field, DbWait *db);

// The true text of an address whose four parts are those of a signed number (-63.-87.-254.-251); any other
// text as it is.
std::string TrueAddress(std::string_view text);

} // namespace qorctl
