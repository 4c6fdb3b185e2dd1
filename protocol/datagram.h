// The management datagram: requests of a client to the chassis's back end over UDP, and the replies. Used by
// the clients (qamctl, the headend's own operator) and by the back end, which decodes the requests.
// docs/management-datagram.md describes it for authors of other clients.
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
  kSourceSections = 6,  // of an input of a source card, given by `slot` and `port`
  kRouterMap = 7,       // the chassis's PID router map of a channel
  kSearch = 8,          // starts or stops the PID search on a channel
  kSearched = 9,        // reads packets that the search has captured
  kCall = 10,           // starts a routine of the card's debug shell
  kCallResult = 11,     // its result
  kAlarms = 12,         // the active alarms
  kAlarmEvents = 13,    // the events in the log
  kLcd = 14,            // the content of the front panel
  kKey = 15,            // presses one of its keys
  kFault = 16,          // adds, clears or lists faults of the hardware
  kGroupStarts = 17,    // when the groups of a channel's tables began
  kPids = 18,           // packets of an input, or of a channel, by PID
};
bool isForCard(Operation operation);  // for the modulator card in the slot
enum FaultRequest : u16 {
  kAddFault = 1,
  kClearFault = 2,
  kListFaults = 3,
  kNameFaults = 4
};  // variables of kFault

// Variables of kRead and kWrite are the card's (qam_back::Variable), per slot and channel; those of
// kGetVariable and kSetVariable are in protocol/variables.h. Results up to 0xFF are the card's
// (qam_back::Result), from 0x100 on the chassis's; the card's own results of a setting are negative.
using namespace qam_back;                        // NOLINT(google-build-using-namespace)
inline constexpr u32 kNotStarted = 0x100;        // the slot's start-up has not returned yet
inline constexpr u32 kUnknownOperation = 0x101;  // not in Operation
inline constexpr u32 kNoBackEnd = 0x102;         // no card has registered a variable
inline constexpr u32 kNotRunning = 0x103;  // kGetVariable, kSetVariable: the FPGA is not available or hangs
inline constexpr u32 kUnknownCardVariable = 0x104;
inline constexpr u32 kNotWritable = 0x105;
inline constexpr u32 kNoInput = 0x106;          // kSourceSections, kPids: no such input
inline constexpr u32 kUnknownRoutine = 0x107;   // kCall
inline constexpr u32 kUnknownCall = 0x108;      // kCallResult: no call has this number, or it is deleted
inline constexpr u32 kTooManyKeys = 0x109;      // kKey: the menu has not read the earlier keys
inline constexpr u32 kUnknownKey = 0x10A;       // kKey
inline constexpr u32 kImpossibleValue = 0x10B;  // kSetVariable: outside the bounds of protocol/variables.h
inline constexpr u32 kUnknownFault = 0x10C;     // kFault: unknown, or it cannot end
inline constexpr u32 kNoFault = 0x10D;          // kFault: there is none to clear
inline constexpr u32 kSettingWithoutRecord = 0xFFFFFFFF;  // -1: the card has no record for the slot
inline constexpr u32 kSettingRefused = 0xFFFFFFFE;        // -2: the card cannot set this variable

// The meaning of a result of a request for this variable, in words for an operator; "result N" for an unknown
// number.
std::string resultText(u32 result, u16 variable = 0);

// Slots and ports count from 0 here, as in the datagrams.
struct Request {
  Operation operation = Operation::kRead;
  u32 sequence = 0;
  u16 variable = 0;
  u16 slot = 0;
  u32 port = 0;
  u16 length = 0;  // vLength as sent; the back end answers kBadLength if `data` has another size
  Bytes data;
};

struct Reply {
  u8 operation = 0;
  u32 sequence = 0;
  u16 variable = 0;
  u16 slot = 0;
  u32 port = 0;
  u32 result = kDone;
  Bytes data{};
  // Of a request that is for a card: it has changes that the chassis could not save, and saves again until
  // that succeeds.
  bool recordNotKept = false;
};

// A request with this data, and `length` set to its size. The link sets its sequence number.
Request makeRequest(Operation operation, u16 variable, u16 slot, u32 port, Bytes data);

inline constexpr std::size_t kRequestHeaderSize = 24;
inline constexpr std::size_t kReplyHeaderSize = 28;
inline constexpr u16 kDefaultManagementPort = 49160;
inline constexpr u16 kDefaultWebPort = 49162;  // of qamweb

Bytes encode(const Request& request);
Bytes encode(const Reply& reply);

// nullopt if the datagram is too short, or its magic or version is wrong. An unknown operation is decoded
// (the back end answers it); for a reply the answer bit must be set.
std::optional<Request> decodeRequest(std::span<const u8> datagram);
std::optional<Reply> decodeReply(std::span<const u8> datagram);

}  // namespace protocol
