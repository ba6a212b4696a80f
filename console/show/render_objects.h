// Locals and objects to text and JSON.
#pragma once

#include "base/terminal.h"
#include "json.h"
#include "wire/objects.h"

namespace qorctl {

// `stack` is that of the locals' thread, `frame` is in it.
std::string LocalsText(const Locals &locals, const Thread &thread, const Frame &frame, const Style &style);
Json LocalsJson(const Locals &locals, const Thread &thread, const Frame &frame);

std::string ObjectText(const ObjectView &object, const Style &style);
Json ObjectJson(const ObjectView &object);

} // namespace qorctl
