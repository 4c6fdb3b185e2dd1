// The identity of the SNMP engine over all power-ups (RFC 3414, section 2.2): its ID and its boot count. Both
// are stored in the flash; managers reject an engine that returns with a lower count as forged.
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

// The identity of this power-up, which is saved before it is used. If the flash has none, or a damaged one, a
// new identity is made; `say` is called to report damage. Throws std::runtime_error if it cannot be saved.
EngineIdentity bootEngine(Flash& flash, const std::function<void(const std::string&)>& say);

std::string engineIdText(const EngineIdentity& engine);  // "0x80001f88..."

}  // namespace headend
