#include "client/card_settings.h"

#include <fmt/format.h>

#include "platform/wire.h"

namespace client {
namespace {

constexpr u8 kNumber = 0;
constexpr u8 kText = 1;

Reply call(Link& link, Operation operation, int slot, u32 id, Bytes data, std::string_view what) {
  const CardVariable* variable = findCardVariable(id);
  if (variable == nullptr) throw VariableError(fmt::format("{} variable {}: there is none", what, id));
  Reply reply =
      link.call(makeRequest(operation, static_cast<u16>(id), static_cast<u16>(slot), 0, std::move(data)));
  if (reply.result != kDone) {
    throw VariableError(fmt::format("{} {} of the card in slot {} was refused: {}", what, variable->name,
                                    slot + 1, resultText(reply.result)));
  }
  return reply;
}

}  // namespace

Bytes encodeNumber(u32 value) {
  Bytes data(4);
  wire::put32(data.data(), value);
  return data;
}

std::optional<u32> decodeNumber(std::span<const u8> data) {
  return data.size() == 4 ? std::optional(wire::get32(data.data())) : std::nullopt;
}

Bytes encodeValue(const VariableValue& value) {
  Bytes data;
  if (const auto* text = std::get_if<std::string>(&value)) {
    data.assign(text->begin(), text->end());
    data.insert(data.begin(), kText);
  } else {
    data = encodeNumber(std::get<u32>(value));
    data.insert(data.begin(), kNumber);
  }
  return data;
}

std::optional<VariableValue> decodeValue(std::span<const u8> data) {
  if (data.empty()) return std::nullopt;
  const auto content = data.subspan(1);
  if (data[0] == kText) return std::string(content.begin(), content.end());
  if (data[0] != kNumber) return std::nullopt;
  return decodeNumber(content);
}

VariableValue getVariable(Link& link, int slot, u32 id) {
  const Reply reply = call(link, Operation::kGetVariable, slot, id, {}, "reading");
  const auto value = decodeValue(reply.data);
  const bool isText = findCardVariable(id)->kind == VariableKind::kText;
  if (!value || std::holds_alternative<std::string>(*value) != isText) {
    throw VariableError(fmt::format(
        "reading {} of the card in slot {}: the reply is not what was asked for; is this server a "
        "chassis?",
        findCardVariable(id)->name, slot + 1));
  }
  return *value;
}

void setVariable(Link& link, int slot, u32 id, u32 value) {
  call(link, Operation::kSetVariable, slot, id, encodeNumber(value), "setting");
}

}  // namespace client
