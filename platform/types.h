// The integer names of the chassis firmware. Included by every file of the module. Here and in all that
// includes it, the headers of qamcard/ declare their names in namespaces.
#pragma once

#include <cstddef>
#include <cstdint>

#define QAM_NAMESPACES
#include "qamcard/types.h"

using i32 = std::int32_t;
using u64 = std::uint64_t;
