// The management datagram: what a client sends to the chassis's back end over UDP, and what comes back. Used
// by the clients (qamctl, the headend's own operator) and by the back end, which decodes what the clients
// encode. docs/management-datagram.md describes it for anybody who writes a client of their own.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "ts/qamRecords.h"

namespace protocol {

using base::Bytes;

enum class Operation : u8 {
  kRead = 1,
  kWrite = 2,
  kStatus = 3,
  kGetVariable = 4,
  kSetVariable = 5,
  kSourceSections = 6,  // of an input of a source card: `slot` and `port` name it
  kRouterMap = 7,       // what the chassis's PID router holds for a channel
  kSearch = 8,          // begins or ends the PID search on a channel
  kSearched = 9,        // takes packets that the search has captured
  kCall = 10,           // begins a routine of the card's debug shell
  kCallResult = 11,     // what became of it
  kAlarms = 12,         // that stand
  kAlarmEvents = 13,    // that the log keeps
  kLcd = 14,            // what the front panel shows
  kKey = 15,            // presses one of its keys
};

// Variables of kRead and kWrite are the card's (qam_back::Variable), per slot and channel; those of
// kGetVariable and kSetVariable are in protocol/variables.h. Results up to 0xFF are the card's
// (qam_back::Result), from 0x100 the chassis's; of a setting the card's own are negative.
using namespace qam_back;
inline constexpr u32 kNotStarted = 0x100;        // the slot's start-up has not returned (yet)
inline constexpr u32 kUnknownOperation = 0x101;  // none of Operation
inline constexpr u32 kNoBackEnd = 0x102;         // no card has registered any variable
inline constexpr u32 kNotRunning = 0x103;  // kGetVariable, kSetVariable: there is no FPGA to ask, or it hangs
inline constexpr u32 kUnknownCardVariable = 0x104;
inline constexpr u32 kNotWritable = 0x105;
inline constexpr u32 kNoInput = 0x106;          // kSourceSections: there is no such input
inline constexpr u32 kUnknownRoutine = 0x107;   // kCall
inline constexpr u32 kUnknownCall = 0x108;      // kCallResult: no call has this number, or it is forgotten
inline constexpr u32 kTooManyKeys = 0x109;      // kKey: the menu has not read those before
inline constexpr u32 kUnknownKey = 0x10A;       // kKey
inline constexpr u32 kImpossibleValue = 0x10B;  // kSetVariable: beyond the bounds of protocol/variables.h
inline constexpr u32 kSettingWithoutRecord = 0xFFFFFFFF;  // -1: the card has no record for the slot
inline constexpr u32 kSettingRefused = 0xFFFFFFFE;        // -2: the card cannot set this variable

// What a result means of a request for this variable, in words for an operator; "result N" for a number
// nobody gives.
std::string resultText(u32 result, u16 variable = 0);

// Slots and ports count from 0 here, as they do on the wire.
struct Request {
  Operation operation = Operation::kRead;
  u32 sequence = 0;
  u16 variable = 0;
  u16 slot = 0;
  u32 port = 0;
  u16 length = 0;  // vLength as sent; the back end answers kBadLength when `data` has another size
  Bytes data;
};

struct Reply {
  u8 operation = 0;
  u32 sequence = 0;
  u16 variable = 0;
  u16 slot = 0;
  u32 port = 0;
  u32 result = kDone;
  Bytes data;
};

// A request with this data, `length` that of it. The link gives it its sequence number.
Request makeRequest(Operation operation, u16 variable, u16 slot, u32 port, Bytes data);
// What answers a request: done, and without data.
Reply replyTo(const Request& request);

inline constexpr std::size_t kRequestHeaderSize = 24;
inline constexpr std::size_t kReplyHeaderSize = 28;
inline constexpr u16 kDefaultManagementPort = 49160;

Bytes encode(const Request& request);
Bytes encode(const Reply& reply);

// Nothing when the datagram is too short, or its magic or version is not ours. An operation that nobody knows
// decodes (the back end answers it); for a reply the answer bit must be set.
std::optional<Request> decodeRequest(std::span<const u8> datagram);
std::optional<Reply> decodeReply(std::span<const u8> datagram);

}  // namespace protocol
