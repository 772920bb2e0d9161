// The one place an errno becomes words: the system's description of an error number, as shown to
// the user inside this program's sentences. Thread-safe.
#pragma once
#include <string>

namespace vantle {

std::string systemErrorText(int errorNumber);

} // namespace vantle
