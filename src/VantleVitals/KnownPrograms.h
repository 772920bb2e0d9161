// The activity reader's table of known programs: what a background program that people often meet
// in a process list is for, in one sentence. Names are the process names the kernel gives (at most 15
// characters). A constant table; thread-safe.
#pragma once
#include <optional>
#include <string_view>

namespace vantle {

// The sentence for a known program's process name; none for a program the table does not know.
std::optional<std::string_view> knownProgramDescription(std::string_view processName);

} // namespace vantle
