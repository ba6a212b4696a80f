// Values to JSON, for scripts. What isn't known is null or left out; numbers are numbers.
#pragma once

#include "base/jvm_entry.h"
#include "wire/decode.h"

#include <nlohmann/json.hpp>

namespace qorctl {

using Json = nlohmann::ordered_json;

Json ToJson(const Thread &thread);
Json ToJson(const ThreadSample &sample);
// One thread without its current call and its stack.
Json RowJson(const Thread &thread);
Json DbJson(const DbWait &db);
Json ToJson(const LockHolder &holder); // null when no thread is known
Json ToJson(const Summary &summary);
Json CpuJson(const Summary &summary); // the processor figures alone
Json ToJson(const std::vector<JvmEntry> &jvms);

// One document as text. Bytes that aren't UTF-8 are replaced.
std::string JsonText(const Json &document, bool one_line);

} // namespace qorctl
