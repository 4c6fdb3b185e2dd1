#include "commands/json_fields.h"

#include <fmt/args.h>
#include <fmt/format.h>

#include <system_error>

#include "base/files.h"
#include "base/text.h"

namespace commands {

Json member(const Json& object, const char* key) {
  return object.is_object() && object.contains(key) ? object[key] : Json();
}

std::optional<double> number(const Json& object, const char* key) {
  const Json value = member(object, key);
  return value.is_number() ? std::optional(value.get<double>()) : std::nullopt;
}

std::string oneLine(const Json& value) {
  if (value.is_string()) return base::printable(value.get<std::string>());
  if (value.is_number()) return fmt::format("{:g}", value.get<double>());
  std::string text;
  if (!value.is_array()) return text;
  for (const Json& part : value) {
    if (part.is_string()) text += (text.empty() ? "" : " | ") + base::printable(part.get<std::string>());
  }
  return text;
}

std::string whole(const Json& object, const char* key) {
  const auto value = number(object, key);
  return value ? fmt::format("{:.0f}", *value) : "?";
}

std::string filled(const char* text, const Json& object) {
  fmt::dynamic_format_arg_store<fmt::format_context> values;
  for (const auto& [key, value] : object.items()) {
    if (value.is_string()) values.push_back(fmt::arg(key.c_str(), value.get<std::string>()));
    if (value.is_number()) values.push_back(fmt::arg(key.c_str(), value.get<std::int64_t>()));
  }
  return fmt::vformat(text, values);
}

std::string jsonText(const Json& json) {
  return json.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

Json readJson(const std::filesystem::path& file) {
  constexpr std::size_t kLongest = 1 << 20;  // several times a full channel
  std::string text;
  try {
    text = base::readFile(file, kLongest);
  } catch (const std::system_error& e) {
    throw std::runtime_error(fmt::format("cannot be read: {}", e.what()));
  }
  Json json = Json::parse(text, nullptr, false);
  if (json.is_discarded()) throw std::runtime_error("is not JSON");
  return json;
}

}  // namespace commands
