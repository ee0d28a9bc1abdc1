// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <exception>
#include <string>

namespace kelvo {

// Where an exception was raised, as the host sees it in Exception::location():
// "path: line: qualified name(..)". The path is the source file relative to the
// repository root, without extension.
struct SourceLocation {
    const char* path;
    int line;
    const char* function;

    std::string text() const;
};

class Exception : public std::exception {
public:
    Exception(std::string message, std::string location)
        : message_(std::move(message)), location_(std::move(location)) {}

    const char* what() const noexcept override { return message_.c_str(); }
    const std::string& message() const noexcept { return message_; }
    const std::string& location() const noexcept { return location_; }

private:
    std::string message_;
    std::string location_;
};

}  // namespace kelvo
