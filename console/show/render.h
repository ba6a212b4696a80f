// Values to text for people.
//
// Texts of the JVM (thread names, SQL, ...) are shown with their control characters made visible, so that
// they can't steer the terminal.
#pragma once

#include "base/jvm_entry.h"
#include "base/terminal.h"
#include "wire/decode.h"

#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

// One row a thread.
std::string ThreadTable(const ThreadSample &sample, const Style &style);

// Stacks with locks, as a thread dump shows them. Owners are named from `sample` where they are in it.
std::string ThreadDump(const ThreadSample &sample, const Style &style);

// A frame's call as a stack trace shows it.
std::string CallText(const Frame &frame);

// The colour of a thread state; null for none.
const char *StateColourOf(std::string_view state);

// What else there is to say about one thread's stack: frames, time, whether it is complete.
std::string StackNotes(const ThreadSample &sample);

// What else there is to say about a sample: counts, time, whether it is complete.
// `os_threads` is how many threads the process has, 0 when not known.
std::string SampleNotes(const ThreadSample &sample, int os_threads);

std::string SummaryTable(const Summary &summary, const Style &style);

// The summary as one line of a series, and the line that names its columns.
std::string SummaryHeader();
std::string SummaryLine(const Summary &summary);

// The processor figures of a summary.
std::string CpuTable(const Summary &summary, const Style &style);
std::string CpuHeader();
std::string CpuLine(const Summary &summary);

std::string JvmTable(const std::vector<JvmEntry> &jvms, const Style &style);

// A reply as it came, with control characters written "<29>" and a new line after records and sections.
std::string VisibleReply(std::string_view reply);

} // namespace qorctl
