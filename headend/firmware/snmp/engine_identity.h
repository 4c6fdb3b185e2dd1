// Who the SNMP engine is over all its power-ups (RFC 3414, section 2.2): its ID, and how often it has booted.
// Both are kept in the flash; managers take an engine that comes back with a lower count for a forgery.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "headend/kernel/flash.h"

namespace headend {

struct EngineIdentity {
  std::vector<u8> id;
  u32 boots = 1;
};

// The identity of this power-up, which is saved before it is used. An engine without one in its flash, or
// with a damaged one, becomes a new one; `say` tells of damage. Throws std::runtime_error when it cannot be
// saved.
EngineIdentity bootEngine(Flash& flash, const std::function<void(const std::string&)>& say);

std::string engineIdText(const EngineIdentity& engine);  // "0x80001f88..."

}  // namespace headend
