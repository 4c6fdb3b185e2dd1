#include "client/chassis_services.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>

#include "platform/wire.h"

namespace client {

Bytes ask(Link& link, Operation operation, const Channel& place, Bytes data, const std::string& what) {
  const Reply reply = link.call(makeRequest(operation, 0, place.slot, place.port, std::move(data)));
  if (reply.result != kDone) {
    throw ServiceError(fmt::format("cannot {}: {}", what, resultText(reply.result)));
  }
  return reply.data;
}

[[noreturn]] void misshapen(const std::string& what) {
  throw ServiceError(fmt::format("cannot {}: the reply is not of the form that this program knows", what));
}

std::string inputName(const SourcePort& source) {
  return fmt::format("input {}.{}", source.slot + 1, source.port + 1);
}

std::optional<SourcePort> parseSourcePort(std::string_view text) {
  if (text.size() < 3 || text[0] < '1' || text[0] >= '1' + kSlots || text[1] != '.') return {};
  SourcePort source{.slot = static_cast<u16>(text[0] - '1'), .port = 0};
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + 2, end, source.port);
  if (error != std::errc() || stop != end || source.port < 1 || source.port > kInputsPerCard) return {};
  --source.port;
  return source;
}

std::vector<Section> sourceSections(Link& link, const SourcePort& source, u16 pid, u8 tableId) {
  const std::string what = fmt::format("read {} of {}", nameOfTableId(tableId), inputName(source));
  constexpr std::size_t kRequestSize = 8;
  constexpr std::size_t kReplyHead = 8;
  std::vector<Section> sections;
  u32 total = 0;
  do {
    Bytes request(kRequestSize);
    wire::put16(request.data(), pid);
    request[2] = tableId;
    wire::put32(&request[4], static_cast<u32>(sections.size()));
    const Bytes reply =
        ask(link, Operation::kSourceSections, {.slot = source.slot, .port = source.port}, request, what);
    if (reply.size() < kReplyHead) misshapen(what);
    total = wire::get32(reply.data());
    const std::size_t before = sections.size();
    for (std::size_t at = kReplyHead; at + 2 <= reply.size();) {
      const std::size_t size = wire::get16(&reply[at]);
      at += 2;
      if (size < kSectionHeaderSize + kCrcSize || size > reply.size() - at) misshapen(what);
      const auto first = reply.begin() + static_cast<std::ptrdiff_t>(at);
      sections.push_back({.pid = pid, .bytes = Bytes(first, first + static_cast<std::ptrdiff_t>(size))});
      at += size;
    }
    if (sections.size() == before) break;  // the table has become shorter meanwhile
  } while (sections.size() < total);
  return sections;
}

std::vector<RouterWords> routerMap(Link& link, const Channel& channel) {
  constexpr std::size_t kPositionSize = 6;
  const std::string what = fmt::format("read the router's map of channel {}", channelName(channel));
  const Bytes reply = ask(link, Operation::kRouterMap, channel, {}, what);
  if (reply.size() != kRouterPositions * kPositionSize) misshapen(what);
  std::vector<RouterWords> map(kRouterPositions);
  for (std::size_t i = 0; i < kRouterPositions; ++i) {
    for (std::size_t word = 0; word < map[i].size(); ++word) {
      map[i][word] = wire::get16(&reply[i * kPositionSize + word * 2]);
    }
  }
  return map;
}

void search(Link& link, const Channel& channel, u16 pid, u8 tableId, bool on) {
  Bytes request(4);
  wire::put16(request.data(), pid);
  request[2] = tableId;
  request[3] = on ? 1 : 0;
  ask(link, Operation::kSearch, channel, request, fmt::format("search channel {}", channelName(channel)));
}

std::vector<Packet> searched(Link& link, const Channel& channel) {
  constexpr std::size_t kHead = 4;
  const std::string what = fmt::format("read what the search of channel {} found", channelName(channel));
  const Bytes reply = ask(link, Operation::kSearched, channel, {}, what);
  if (reply.size() < kHead || reply.size() != kHead + reply[3] * kPacketSize) misshapen(what);
  std::vector<Packet> packets(reply[3]);
  for (std::size_t i = 0; i < packets.size(); ++i) {
    std::copy_n(&reply[kHead + i * kPacketSize], kPacketSize, packets[i].begin());
  }
  return packets;
}

u32 beginCall(Link& link, u16 slot, const std::string& routine, std::span<const u32> arguments) {
  Bytes request(routine.begin(), routine.end());
  request.push_back(0);
  for (const u32 argument : arguments) {
    request.resize(request.size() + 4);
    wire::put32(&request[request.size() - 4], argument);
  }
  const std::string what = fmt::format("call {} of card {}", routine, slot + 1);
  const Bytes reply = ask(link, Operation::kCall, {.slot = slot, .port = 0}, std::move(request), what);
  if (reply.size() != 4) misshapen(what);
  return wire::get32(reply.data());
}

CallState callState(Link& link, u16 slot, u32 number) {
  Bytes request(4);
  wire::put32(request.data(), number);
  const std::string what = fmt::format("ask for call {} of card {}", number, slot + 1);
  const Bytes reply = ask(link, Operation::kCallResult, {.slot = slot, .port = 0}, request, what);
  if (reply.size() < 4) misshapen(what);
  return {.finished = reply[0] != 0, .printed = std::string(reply.begin() + 4, reply.end())};
}

}  // namespace client
