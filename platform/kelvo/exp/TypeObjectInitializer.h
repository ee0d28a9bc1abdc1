// SPDX-License-Identifier: Apache-2.0
#pragma once

namespace kelvo::exp {

// Registers the library's types with the platform's type registry. Exactly one
// instance lives in the library, created when it is loaded and destroyed when it
// is unloaded; instanceCount() lets a host verify that.
class TypeObjectInitializer {
public:
    TypeObjectInitializer();
    ~TypeObjectInitializer();
    TypeObjectInitializer(const TypeObjectInitializer&) = delete;
    TypeObjectInitializer& operator=(const TypeObjectInitializer&) = delete;

    static int instanceCount();
};

}  // namespace kelvo::exp
