#include "headend/vcd_trace.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>

namespace headend {
namespace {

bool matchesOne(const std::string& glob, int slot, std::string_view name) {
  const bool namesSlot = glob.find('.') != std::string::npos;  // register names have no point
  const std::string text = namesSlot ? fmt::format("slot{}.{}", slot + 1, name) : std::string(name);
  return fnmatch(glob.c_str(), text.c_str(), 0) == 0;
}

// One or two of the printable characters, '!' to '~'.
std::array<char, 3> codeOf(std::size_t index) {
  constexpr std::size_t kCharacters = '~' - '!' + 1;
  const auto character = [](std::size_t digit) { return static_cast<char>('!' + digit % kCharacters); };
  if (index < kCharacters) return {character(index)};
  return {character(index / kCharacters), character(index)};
}

}  // namespace

VcdTrace::VcdTrace(const std::string& file, std::span<const int> slots, std::span<const std::string> globs)
    : file_("trace", file) {
  file_.write(header(slots, globs));
}

bool VcdTrace::matches(const std::string& glob, std::span<const int> slots) {
  return std::ranges::any_of(slots, [&](int slot) {
    return std::ranges::any_of(kCardRegisters,
                               [&](const CardRegister& reg) { return matchesOne(glob, slot, reg.name); });
  });
}

// No date: the same run gives the same bytes.
std::string VcdTrace::header(std::span<const int> slots, std::span<const std::string> globs) {
  const auto wanted = [&](int slot, std::string_view name) {
    const auto matches = [&](const std::string& glob) { return matchesOne(glob, slot, name); };
    return globs.empty() || std::ranges::any_of(globs, matches);
  };
  std::string text = "$version headend $end\n$timescale 1 ns $end\n";
  std::string values;
  std::size_t traced = 0;
  for (const int slot : slots) {
    const auto index = static_cast<std::size_t>(slot);
    if (signals_.size() <= index) signals_.resize(index + 1);
    text += fmt::format("$scope module slot{} $end\n", slot + 1);
    for (std::size_t i = 0; i < kCardRegisters.size(); ++i) {
      const CardRegister& reg = kCardRegisters[i];
      if (!wanted(slot, reg.name)) continue;
      Signal& signal = signals_[index][i];
      signal.code = codeOf(traced++);
      text += fmt::format("$var wire {} {} {} $end\n", reg.isLine() ? 1 : 16, signal.code.data(), reg.name);
      values += fmt::format("{}{}\n", reg.isLine() ? "0" : "b0 ", signal.code.data());
    }
    text += "$upscope $end\n";
  }
  return text + "$enddefinitions $end\n#0\n$dumpvars\n" + values + "$end\n";
}

void VcdTrace::note(int slot, u32 offset, u16 value, Nanos now) {
  Signal& signal = signals_[static_cast<std::size_t>(slot)][offset / 2];
  if (signal.code[0] == '\0') return;
  const bool isLine = cardRegister(offset).isLine();
  if (isLine) value &= 1;
  if (value == signal.value) return;
  signal.value = value;
  writeTime(now);
  file_.write(isLine ? fmt::format("{}{}\n", value, signal.code.data())
                     : fmt::format("b{:b} {}\n", value, signal.code.data()));
}

// A change that is reported late gets the time that the file has reached, because times must not decrease.
void VcdTrace::writeTime(Nanos now) {
  if (now <= written_) return;
  written_ = now;
  file_.write(fmt::format("#{}\n", now));
}

bool VcdTrace::finish(Nanos now) {
  writeTime(now);
  return file_.complete();
}

}  // namespace headend
