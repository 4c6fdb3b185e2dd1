#include "headend/firmware/snmp/engine_identity.h"

#include <fmt/format.h>

#include <cstdio>
#include <optional>
#include <random>
#include <stdexcept>

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

std::optional<EngineIdentity> parse(const std::string& text) {
  std::array<char, 2 * kIdSize + 1> hex{};
  unsigned long boots = 0;
  int end = 0;
  if (std::sscanf(text.c_str(), "engine 0x%26[0-9a-f] boots %10lu\n%n", hex.data(), &boots, &end) != 2 ||
      end != static_cast<int>(text.size()) || !text.ends_with('\n') || boots == 0 || boots > kMostBoots) {
    return {};
  }
  const std::string digits = hex.data();
  if (digits.size() != 2 * kIdSize) return {};
  EngineIdentity engine{.id = {}, .boots = static_cast<u32>(boots)};
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    engine.id.push_back(base::parseDigits<u8>(digits.substr(i, 2), 16, 0xFF).value());
  }
  return engine;
}

std::optional<std::string> contentOf(const Flash& flash) {
  std::FILE* file = flash.open(kFile, "rb");
  if (file == nullptr) return {};
  std::array<char, 100> text{};
  const std::size_t size = std::fread(text.data(), 1, text.size(), file);
  std::fclose(file);
  return std::string(text.data(), size);
}

}  // namespace

std::string engineIdText(const EngineIdentity& engine) {
  return fmt::format("0x{:02x}", fmt::join(engine.id, ""));
}

EngineIdentity bootEngine(Flash& flash, const std::function<void(const std::string&)>& say) {
  EngineIdentity engine = newEngine();
  if (const auto text = contentOf(flash)) {
    if (const auto last = parse(*text); !last) {
      say("the SNMP engine's ID in the flash is damaged: this is a new engine, whose keys users must learn "
          "anew");
    } else if (last->boots < kMostBoots) {
      engine = {last->id, last->boots + 1};
    } else {
      say("the SNMP engine has used up its boots: this is a new engine, whose keys users must learn anew");
    }
  }
  const std::string content = fmt::format("engine {} boots {}\n", engineIdText(engine), engine.boots);
  const std::string error =
      flash.replace(kFile, {reinterpret_cast<const u8*>(content.data()), content.size()});
  if (!error.empty()) throw std::runtime_error(error);
  return engine;
}

}  // namespace headend
