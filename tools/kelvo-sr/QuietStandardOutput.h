#pragma once

#include <iostream>
#include <sstream>

namespace kelvo::tools {

// Keeps what the library prints on standard output (its per-pass timing lines) off
// the terminal for the lifetime of the object, when asked to be quiet.
class QuietStandardOutput {
public:
    explicit QuietStandardOutput(bool quiet = true)
        : saved(quiet ? std::cout.rdbuf(discard.rdbuf()) : nullptr) {}
    ~QuietStandardOutput() {
        if (saved != nullptr) {
            std::cout.rdbuf(saved);
        }
    }
    QuietStandardOutput(const QuietStandardOutput&) = delete;
    QuietStandardOutput& operator=(const QuietStandardOutput&) = delete;

private:
    std::ostringstream discard;
    std::streambuf* saved;
};

}  // namespace kelvo::tools
