#include "headend/flag_text.h"

#include <cmath>
#include <stdexcept>

#include "base/numbers.h"

namespace headend {

void refuse(const std::string& text, const std::string& want) {
  throw std::invalid_argument("'" + text + "': " + want);
}

std::pair<std::string, std::string> splitAssignment(const std::string& text, const std::string& want) {
  const std::size_t at = text.find('=');
  if (at == std::string::npos || at == 0 || at + 1 == text.size()) refuse(text, want);
  return {text.substr(0, at), text.substr(at + 1)};
}

std::optional<Nanos> parseSeconds(const std::string& text) {
  const auto seconds = base::parseReal(text);
  if (!seconds || *seconds < 0 || *seconds > 1e9) return {};
  return std::llround(*seconds * 1e9);
}

Nanos takeTimeIfAny(std::string& text) {
  const std::size_t at = text.rfind('@');
  const auto seconds = at == std::string::npos ? std::nullopt : parseSeconds(text.substr(at + 1));
  if (seconds) text.resize(at);
  return seconds.value_or(0);
}

}  // namespace headend
