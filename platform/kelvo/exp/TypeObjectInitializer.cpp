// SPDX-License-Identifier: Apache-2.0
#include "platform/kelvo/exp/TypeObjectInitializer.h"

namespace kelvo::exp {

namespace {
int liveInstances = 0;
const TypeObjectInitializer libraryTypes;
}  // namespace

TypeObjectInitializer::TypeObjectInitializer() { ++liveInstances; }

TypeObjectInitializer::~TypeObjectInitializer() { --liveInstances; }

int TypeObjectInitializer::instanceCount() { return liveInstances; }

}  // namespace kelvo::exp
