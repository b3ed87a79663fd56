#pragma once

#include <exception>
#include <string>

namespace morvane {

// The root of every error the system throws. `description()` is the text shown to the user,
// exactly as worded; `what()` gives the same text so that generic handlers print it too.
class Error : public std::exception {
public:
    explicit Error(std::string description) : description_(std::move(description)) {}

    const std::string& description() const noexcept { return description_; }
    const char* what() const noexcept override { return description_.c_str(); }

private:
    std::string description_;
};

// A failure of an operating-system service: a file that can't be read or written, a folder
// that can't be created. The text names the operation, the path and the system's reason.
class PlatformError : public Error {
public:
    using Error::Error;

    // Builds the error from an errno value, e.g. "Couldn't create folder /x: Permission denied".
    static PlatformError fromErrno(int code, const std::string& operation, const std::string& path);
};

// The system's reason for an errno value, e.g. "No such file or directory".
std::string errnoText(int code);

} // namespace morvane
