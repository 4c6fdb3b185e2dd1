#include "protocol/datagram.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace protocol {
namespace {

constexpr u16 kMagic = 0x514D;  // "QM"
constexpr u8 kVersion = 1;
constexpr u8 kAnswerBit = 0x80;
constexpr u8 kRecordNotKept = 0x01;  // of the flags

// A reply's result follows. The sixteen bytes from `variable` on are the variable header of the back end.
struct Header {
  wire::U16 magic;
  u8 version, operation;
  wire::U32 sequence;
  wire::U16 variable, slot;
  wire::U32 port;
  wire::U16 length;
  u8 flags, reserved1;  // flags of replies
  wire::U32 reserved2;
};
static_assert(sizeof(Header) == kRequestHeaderSize && sizeof(Header) + sizeof(u32) == kReplyHeaderSize);

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
    {kUnknownVariable, "the card has no such variable"},
    {kUnknownTable, "the card has no type for this table_id"},
    {kUnknownTableRead, "the card has no interval for this table_id"},
    {kBadSlotOrPort, "no such slot or channel"},
    {kNoCard, "no card in this slot"},
    {kBadLength, "the data has not the length of the variable"},
    {kNoInput,
     "there is no such input: the chassis has no source card in this slot, or none with so many inputs"},
    {kUnknownRoutine, "no routine of this name is offered, or it takes another number of arguments"},
    {kUnknownCall, "no call has this number, or it is forgotten"},
    {kTooManyKeys, "the menu has not read the keys that were pressed before: try again"},
    {kUnknownKey, "the panel has no such key"},
    {kUnknownFault, "no fault has this name, or it cannot end: 'headend --fault help' lists the names"},
    {kNoFault, "no such fault is present or planned: 'qamctl fault list' shows those that are"},
    {kNotStarted, "the card has not finished its start-up"},
    {kUnknownOperation, "the back end has no such operation"},
    {kNoBackEnd, "no card has registered any variable"},
    {kNotRunning, "the card does not run (its status shows why)"},
    {kUnknownCardVariable, "a card has no variable of this id"},
    {kImpossibleValue, "the variable cannot have this value (qamctl var list shows what it can be)"},
    {kNotWritable, "this variable can only be read"},
    {kSettingWithoutRecord, "the card has no record for this slot"},
    {kSettingRefused, "the card cannot set this variable"},
};

template <typename Message>
Bytes headerOf(const Message& message, u8 operation, std::size_t length, u8 flags = 0) {
  Header header{};
  header.flags = flags;
  header.magic = kMagic;
  header.version = kVersion;
  header.operation = operation;
  header.sequence = message.sequence;
  header.variable = message.variable;
  header.slot = message.slot;
  header.port = message.port;
  header.length = static_cast<u16>(length);
  return base::bytesOf(header);
}

std::optional<Header> decodeHeader(std::span<const u8> datagram, std::size_t size, bool isAnswer) {
  const auto header = base::recordOf<Header>(datagram);
  const bool isValid = datagram.size() >= size && header.magic == kMagic && header.version == kVersion &&
                       ((header.operation & kAnswerBit) != 0) == isAnswer;
  return isValid ? std::optional(header) : std::nullopt;
}

}  // namespace

bool isForCard(Operation operation) {
  using enum Operation;
  constexpr Operation kAll[] = {kRead,   kWrite,    kGetVariable, kSetVariable, kRouterMap,
                                kSearch, kSearched, kCall,        kCallResult,  kGroupStarts};
  return std::ranges::find(kAll, operation) != std::end(kAll);
}

std::string resultText(u32 result, u16 variable) {
  const auto* found = std::ranges::find_if(kResultTexts, [&](const ResultText& row) {
    return row.result == result && (row.variable == 0 || row.variable == variable);
  });
  return found == std::end(kResultTexts) ? fmt::format("result {}", result) : found->text;
}

Request makeRequest(Operation operation, u16 variable, u16 slot, u32 port, Bytes data) {
  const auto length = static_cast<u16>(data.size());
  return {operation, 0, variable, slot, port, length, std::move(data)};
}

Bytes encode(const Request& r) {
  Bytes out = headerOf(r, static_cast<u8>(r.operation), r.length);
  base::append(out, r.data);
  return out;
}

Bytes encode(const Reply& r) {
  Bytes out = headerOf(r, r.operation | kAnswerBit, r.data.size(), r.recordNotKept ? kRecordNotKept : u8{0});
  base::append32(out, r.result);
  base::append(out, r.data);
  return out;
}

std::optional<Request> decodeRequest(std::span<const u8> datagram) {
  const auto h = decodeHeader(datagram, kRequestHeaderSize, false);
  if (!h) return std::nullopt;
  return Request{static_cast<Operation>(h->operation),
                 h->sequence,
                 h->variable,
                 h->slot,
                 h->port,
                 h->length,
                 Bytes(datagram.begin() + kRequestHeaderSize, datagram.end())};
}

std::optional<Reply> decodeReply(std::span<const u8> datagram) {
  const auto h = decodeHeader(datagram, kReplyHeaderSize, true);
  if (!h) return std::nullopt;
  return Reply{static_cast<u8>(h->operation & ~kAnswerBit),
               h->sequence,
               h->variable,
               h->slot,
               h->port,
               wire::get32(&datagram[kRequestHeaderSize]),
               Bytes(datagram.begin() + kReplyHeaderSize, datagram.end()),
               (h->flags & kRecordNotKept) != 0};
}

}  // namespace protocol
