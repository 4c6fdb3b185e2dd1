#include "protocol/datagram.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace protocol {
namespace {

// Offsets within the datagram; the sixteen bytes from kHeader on are the variable header of the back end.
constexpr u16 kMagic = 0x514D;  // "QM"
constexpr u8 kVersion = 1;
constexpr u8 kAnswerBit = 0x80;
constexpr std::size_t kVersionAt = 2;
constexpr std::size_t kOperationAt = 3;
constexpr std::size_t kSequenceAt = 4;
constexpr std::size_t kHeader = 8;
constexpr std::size_t kVariableAt = kHeader + 0;
constexpr std::size_t kSlotAt = kHeader + 2;
constexpr std::size_t kPortAt = kHeader + 4;
constexpr std::size_t kLengthAt = kHeader + 8;
constexpr std::size_t kResultAt = 24;

struct ResultText {
  u32 result;
  const char* text;
  u16 variable = 0;  // the variable for this meaning; 0: any other
};
constexpr ResultText kResultTexts[] = {
    {kMapTooLong, "the card takes at most 256 entries", kPidMapChunk},
    {kBadSource, "an entry names an input that its source card has not, or no slot", kPidMapChunk},
    {kNoCard, "no card in this slot, or in a source slot that an entry names", kPidMapChunk},
    {kDone, "done"},
    {kStoreFull, "the card's PSI store is full"},
    {kUnknownVariable, "the card knows no such variable"},
    {kUnknownTable, "the card has no type for this table_id"},
    {kUnknownTableRead, "the card has no interval for this table_id"},
    {kBadSlotOrPort, "no such slot or channel"},
    {kNoCard, "no card in this slot"},
    {kBadLength, "the data has not the length that the variable asks for"},
    {kNoInput,
     "there is no such input: the chassis has no source card in this slot, or none with so many inputs"},
    {kUnknownRoutine, "no routine of this name is offered, or it takes another number of arguments"},
    {kUnknownCall, "no call has this number, or it is forgotten"},
    {kTooManyKeys, "the menu has not read the keys that were pressed before: try again"},
    {kUnknownKey, "the panel has no such key"},
    {kNotStarted, "the card has not finished its start-up"},
    {kUnknownOperation, "the back end knows no such operation"},
    {kNoBackEnd, "no card has registered any variable"},
    {kNotRunning, "the card does not run (its status says why)"},
    {kUnknownCardVariable, "a card has no variable of this id"},
    {kImpossibleValue, "the variable cannot have this value (qamctl var list shows what it can be)"},
    {kNotWritable, "this variable can only be read"},
    {kSettingWithoutRecord, "the card has no record for this slot"},
    {kSettingRefused, "the card cannot set this variable"},
};

struct Common {
  u8 operation;
  u32 sequence;
  u16 variable;
  u16 slot;
  u32 port;
  u16 length;
};

Bytes encodeCommon(const Common& c, std::size_t headerSize, const Bytes& data) {
  Bytes out(headerSize + data.size(), 0);
  wire::put16(out.data(), kMagic);
  out[kVersionAt] = kVersion;
  out[kOperationAt] = c.operation;
  wire::put32(&out[kSequenceAt], c.sequence);
  wire::put16(&out[kVariableAt], c.variable);
  wire::put16(&out[kSlotAt], c.slot);
  wire::put32(&out[kPortAt], c.port);
  wire::put16(&out[kLengthAt], c.length);
  std::copy(data.begin(), data.end(), out.begin() + static_cast<std::ptrdiff_t>(headerSize));
  return out;
}

std::optional<Common> decodeCommon(std::span<const u8> d, std::size_t headerSize) {
  if (d.size() < headerSize || wire::get16(d.data()) != kMagic || d[kVersionAt] != kVersion) {
    return std::nullopt;
  }
  return Common{.operation = d[kOperationAt],
                .sequence = wire::get32(&d[kSequenceAt]),
                .variable = wire::get16(&d[kVariableAt]),
                .slot = wire::get16(&d[kSlotAt]),
                .port = wire::get32(&d[kPortAt]),
                .length = wire::get16(&d[kLengthAt])};
}

}  // namespace

std::string resultText(u32 result, u16 variable) {
  const auto* found = std::ranges::find_if(kResultTexts, [&](const ResultText& row) {
    return row.result == result && (row.variable == 0 || row.variable == variable);
  });
  return found == std::end(kResultTexts) ? fmt::format("result {}", result) : found->text;
}

Request makeRequest(Operation operation, u16 variable, u16 slot, u32 port, Bytes data) {
  Request request;
  request.operation = operation;
  request.variable = variable;
  request.slot = slot;
  request.port = port;
  request.length = static_cast<u16>(data.size());
  request.data = std::move(data);
  return request;
}

Reply replyTo(const Request& request) {
  return {.operation = static_cast<u8>(request.operation),
          .sequence = request.sequence,
          .variable = request.variable,
          .slot = request.slot,
          .port = request.port,
          .result = kDone,
          .data = {}};
}

Bytes encode(const Request& r) {
  return encodeCommon({static_cast<u8>(r.operation), r.sequence, r.variable, r.slot, r.port, r.length},
                      kRequestHeaderSize, r.data);
}

Bytes encode(const Reply& r) {
  Bytes out = encodeCommon({static_cast<u8>(r.operation | kAnswerBit), r.sequence, r.variable, r.slot, r.port,
                            static_cast<u16>(r.data.size())},
                           kReplyHeaderSize, r.data);
  wire::put32(&out[kResultAt], r.result);
  return out;
}

std::optional<Request> decodeRequest(std::span<const u8> datagram) {
  const auto c = decodeCommon(datagram, kRequestHeaderSize);
  if (!c || (c->operation & kAnswerBit) != 0) return std::nullopt;
  return Request{.operation = static_cast<Operation>(c->operation),
                 .sequence = c->sequence,
                 .variable = c->variable,
                 .slot = c->slot,
                 .port = c->port,
                 .length = c->length,
                 .data = Bytes(datagram.begin() + kRequestHeaderSize, datagram.end())};
}

std::optional<Reply> decodeReply(std::span<const u8> datagram) {
  const auto c = decodeCommon(datagram, kReplyHeaderSize);
  if (!c || (c->operation & kAnswerBit) == 0) return std::nullopt;
  return Reply{.operation = static_cast<u8>(c->operation & ~kAnswerBit),
               .sequence = c->sequence,
               .variable = c->variable,
               .slot = c->slot,
               .port = c->port,
               .result = wire::get32(&datagram[kResultAt]),
               .data = Bytes(datagram.begin() + kReplyHeaderSize, datagram.end())};
}

}  // namespace protocol
