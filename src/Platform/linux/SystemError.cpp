#include "Platform/SystemError.h"

#include <cstring>

namespace vantle {

std::string systemErrorText(int errorNumber) {
    char buf[256];
    // GNU strerror_r may return a static string instead of filling buf.
    const char* text = ::strerror_r(errorNumber, buf, sizeof buf);
    return text ? std::string(text) : "Unknown error " + std::to_string(errorNumber);
}

} // namespace vantle
