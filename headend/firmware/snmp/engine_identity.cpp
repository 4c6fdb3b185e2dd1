#include "headend/firmware/snmp/engine_identity.h"

#include <fmt/format.h>

#include <optional>
#include <random>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "base/files.h"
#include "base/numbers.h"

namespace headend {
namespace {

constexpr const char* kFile = "/tffs0/snmp/engine.txt";
constexpr u32 kMostBoots = 0x7FFFFFFF - 1;  // after the last one an engine must take a new ID
constexpr std::size_t kIdSize = 13;

// RFC 3411, SnmpEngineID: an enterprise's number with the highest bit set, 5 for octets of its own choice.
EngineIdentity newEngine() {
  EngineIdentity engine{.id = {0x80, 0x00, 0x1F, 0x88, 5}, .boots = 1};
  std::random_device random;
  while (engine.id.size() < kIdSize) engine.id.push_back(static_cast<u8>(random()));
  return engine;
}

std::string encode(const EngineIdentity& engine) {
  return fmt::format("engine {} boots {}\n", engineIdText(engine), engine.boots);
}

std::optional<EngineIdentity> decode(std::string_view text) {
  constexpr std::size_t kIdAt = sizeof "engine 0x" - 1;
  EngineIdentity engine{.id = {}, .boots = 0};
  for (std::size_t at = kIdAt; engine.id.size() < kIdSize && at < text.size(); at += 2)
    engine.id.push_back(base::parseDigits<u8>(text.substr(at, 2), 16, 0xFF).value_or(0));
  const std::string_view boots = text.substr(text.rfind(' ') + 1);
  engine.boots = base::parseDecimal(boots.substr(0, boots.find('\n')), kMostBoots).value_or(0);
  return engine.boots > 0 && encode(engine) == text ? std::optional(engine) : std::nullopt;
}

// nullopt if the flash has none; empty if it cannot be read.
std::optional<std::string> savedText(const Flash& flash) try {
  return base::readFile(flash.hostPath(kFile).value(), 100);
} catch (const std::system_error& e) {
  return e.code() == std::errc::no_such_file_or_directory ? std::nullopt : std::optional<std::string>("");
}

}  // namespace

std::string engineIdText(const EngineIdentity& engine) {
  return fmt::format("0x{:02x}", fmt::join(engine.id, ""));
}

EngineIdentity bootEngine(Flash& flash, const std::function<void(const std::string&)>& say) {
  EngineIdentity engine = newEngine();
  if (const auto text = savedText(flash)) {
    if (const auto last = decode(*text); !last) {
      say("the SNMP engine's ID in the flash is damaged: this is a new engine, whose keys users must learn "
          "anew");
    } else if (last->boots < kMostBoots) {
      engine = {last->id, last->boots + 1};
    } else {
      say("the SNMP engine has used up its boots: this is a new engine, whose keys users must learn anew");
    }
  }
  const std::string content = encode(engine);
  const std::string error =
      flash.replace(kFile, {reinterpret_cast<const u8*>(content.data()), content.size()});
  if (!error.empty()) throw std::runtime_error(error);
  return engine;
}

}  // namespace headend
