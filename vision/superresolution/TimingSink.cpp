// SPDX-License-Identifier: Apache-2.0
#include "vision/superresolution/TimingSink.h"

#include <iostream>

namespace kelvo::vision {

TimingSink::TimingSink() {
    select(Destination::kStandardOutput);
}

TimingSink::TimingSink(const TimingSink& other) {
    *this = other;
}

TimingSink& TimingSink::operator=(const TimingSink& other) {
    lineBuffer.callback = other.lineBuffer.callback;
    lineBuffer.user = other.lineBuffer.user;
    select(other.destination);
    return *this;
}

void TimingSink::toStandardOutput() {
    select(Destination::kStandardOutput);
}

void TimingSink::toNowhere() {
    select(Destination::kNowhere);
}

void TimingSink::toCallback(LineCallback callback, void* user) {
    lineBuffer.callback = callback;
    lineBuffer.user = user;
    select(Destination::kCallback);
}

void TimingSink::select(Destination chosen) {
    destination = chosen;
    switch (chosen) {
        case Destination::kStandardOutput:
            active = &std::cout;
            break;
        case Destination::kNowhere:
            active = &silentStream;
            break;
        case Destination::kCallback:
            active = &callbackStream;
            break;
    }
}

TimingSink::LineBuffer::int_type TimingSink::LineBuffer::overflow(int_type character) {
    if (traits_type::eq_int_type(character, traits_type::eof())) {
        return traits_type::not_eof(character);
    }
    if (character == '\n') {
        deliver();
        return character;
    }
    if (length + 1 == static_cast<int>(sizeof line)) {
        deliver();
    }
    line[length++] = traits_type::to_char_type(character);
    return character;
}

void TimingSink::LineBuffer::deliver() {
    line[length] = '\0';
    length = 0;
    if (callback != nullptr) {
        callback(line, user);
    }
}

}  // namespace kelvo::vision
