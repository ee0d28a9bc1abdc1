// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <iostream>
#include <streambuf>

namespace kelvo::tools {

// Keeps what the library prints on standard output (its per-pass timing lines) off
// the terminal for the lifetime of the object, when asked to be quiet. The lines go to
// a buffer that keeps nothing, so engines on several threads may print at once.
class QuietStandardOutput {
public:
    explicit QuietStandardOutput(bool quiet = true)
        : saved(quiet ? std::cout.rdbuf(&discard) : nullptr) {}
    ~QuietStandardOutput() {
        if (saved != nullptr) {
            std::cout.rdbuf(saved);
        }
    }
    QuietStandardOutput(const QuietStandardOutput&) = delete;
    QuietStandardOutput& operator=(const QuietStandardOutput&) = delete;

private:
    // Without a put area every character reaches overflow, which drops it.
    struct DiscardBuffer : std::streambuf {
        int_type overflow(int_type c) override { return traits_type::not_eof(c); }
    };
    DiscardBuffer discard;
    std::streambuf* saved;
};

}  // namespace kelvo::tools
