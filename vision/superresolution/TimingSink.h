// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <ostream>
#include <streambuf>

namespace kelvo::vision {

// Where an engine's timing lines go: standard output (the default), nowhere, or a function that
// receives each line without its line end. The engine writes its lines to stream(), each ended
// with std::endl, whatever the destination; a host that runs passes on its own thread thus keeps
// its standard output to itself.
class TimingSink {
public:
    using LineCallback = void (*)(const char* line, void* user);

    TimingSink();
    // A copy sends its lines where the original sends them.
    TimingSink(const TimingSink& other);
    TimingSink& operator=(const TimingSink& other);

    void toStandardOutput();
    void toNowhere();
    // The callback must not be null.
    void toCallback(LineCallback callback, void* user);

    std::ostream& stream() { return *active; }

private:
    // Collects characters up to a line end and hands the line over. Lines longer than the buffer
    // arrive in pieces; nothing is allocated while writing.
    class LineBuffer : public std::streambuf {
    public:
        LineCallback callback = nullptr;
        void* user = nullptr;

    protected:
        int_type overflow(int_type character) override;

    private:
        void deliver();

        char line[256] = {};
        int length = 0;
    };

    enum class Destination { kStandardOutput, kNowhere, kCallback };
    void select(Destination destination);

    Destination destination = Destination::kStandardOutput;
    LineBuffer lineBuffer;
    std::ostream callbackStream{&lineBuffer};
    // Without a buffer every write fails silently.
    std::ostream silentStream{nullptr};
    std::ostream* active = nullptr;
};

}  // namespace kelvo::vision
