// SPDX-License-Identifier: Apache-2.0
#include "platform/kelvo/Exception.h"

#include <sstream>

namespace kelvo {

std::string SourceLocation::text() const {
    std::ostringstream stream;
    stream << path << ": " << line << ": " << function << "(..)";
    return stream.str();
}

}  // namespace kelvo
