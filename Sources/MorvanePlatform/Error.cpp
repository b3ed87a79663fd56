#include "MorvanePlatform/Error.h"

#include <cstring>

namespace morvane {

std::string errnoText(int code) {
    char buffer[256];
    // GNU strerror_r may return a static string instead of filling the buffer.
    return ::strerror_r(code, buffer, sizeof buffer);
}

PlatformError PlatformError::fromErrno(int code, const std::string& operation, const std::string& path) {
    return PlatformError(operation + " " + path + ": " + errnoText(code));
}

} // namespace morvane
