// The front panel's keys, debug lines, the SNMP agent's helpers, and the registers of the card.
#include <cstring>

#include "card/QamFpga.h"
#include "conformance/checks.h"
#include "conformance/helpers.h"
#include "platform/agent.h"
#include "platform/chassis.h"

namespace conformance {
namespace {

// The bytes of a parsed element and those left, or null.
void appendEnd(Seen& seen, const u8* data, const u8* end, int left) {
  if (end == nullptr)
    seen << "null";
  else
    seen << static_cast<int>(end - data) << " " << left;
}

// Of `length` bytes, as text of at most `room` bytes.
void parseString(Seen& seen, int length, int room) {
  u8 data[] = {chassis::ASN_OCTET_STR, 3, 'a', 'b', 'c', 0};
  u8 type = 0;
  u8 text[8] = {};
  const u8* end = chassis::asn_parse_string(data, &length, &type, text, &room);
  appendEnd(seen, data, end, length);
  if (end != nullptr) seen << " " << reinterpret_cast<const char*>(text) << " " << room << " type " << type;
}

// Of `length` bytes, as a number with `octets` octets, of which the second is 1.
void parseNumber(Seen& seen, int length, u8 octets) {
  u8 data[] = {chassis::ASN_INTEGER, octets, 0, 1, 2, 3, 4, 5, 6, 7};
  u8 type = 0;
  u32 number = 0;
  const u8* end = chassis::asn_parse_unsigned_int(data, &length, &type, &number, sizeof number);
  appendEnd(seen, data, end, length);
  if (end != nullptr) seen << " " << static_cast<int>(number) << " type " << type;
}

}  // namespace

void checkKeyScan(Seen& seen, u8 /*slotNo*/) {
  constexpr int kCalls = 5;
  constexpr int kMostKeys = 100;
  for (int i = 0; i < kMostKeys && chassis::keyScan() != chassis::kKeyNone; ++i) {
  }
  TickCount count;
  for (int i = 0; i < kCalls; ++i) chassis::keyScan();
  const int ticks = count.end();
  seen.addTicks(ticks == kCalls - 1 ? kCalls : ticks, kCalls);
}

void checkLongText(Seen& seen, u8 /*slotNo*/) {
  chassis::DebugPrint("a line of 120 characters %095d\r\n", 1);
  seen << "returned";
}

void checkCompare(Seen& seen, u8 /*slotNo*/) {
  const u32 first[] = {1, 3, 6};
  const u32 second[] = {1, 3, 0x80000000};
  const auto append = [&seen](const u32* a, int lengthOfA, const u32* b, int lengthOfB) {
    seen.next() << chassis::compare(a, lengthOfA, b, lengthOfB);
  };
  append(first, 3, first, 3);
  append(first, 3, second, 3);
  append(second, 3, first, 3);
  append(first, 2, first, 3);
  append(second, 3, second, 2);
}

void checkParseString(Seen& seen, u8 /*slotNo*/) {
  parseString(seen, 6, 8);
  seen << ", ";
  parseString(seen, 6, 2);
  seen << ", ";
  parseString(seen, 4, 8);
}

void checkParseNumber(Seen& seen, u8 /*slotNo*/) {
  parseNumber(seen, 10, 3);
  seen << ", ";
  parseNumber(seen, 10, 6);
  seen << ", ";
  parseNumber(seen, 4, 3);
}

// Each register gets its own value, then in turn another, after which all are read.
void checkScratchRegisters(Seen& seen, u8 slotNo) {
  constexpr u16 kFirst = 0x5A01;
  Reg16(&cells)[15] = QamFpgaIf[slotNo]->Test;
  const auto valueOf = [](int cell) { return static_cast<u16>(kFirst + 0x101 * cell); };
  u16 before[15];
  for (int i = 0; i < 15; ++i) {
    before[i] = cells[i];
    cells[i] = valueOf(i);
  }
  int wrong = 0;
  for (int i = 0; i < 15; ++i) {
    const auto opposite = static_cast<u16>(~valueOf(i));
    cells[i] = opposite;
    for (int j = 0; j < 15; ++j) wrong += cells[j] != (j == i ? opposite : valueOf(j)) ? 1 : 0;
    cells[i] = valueOf(i);
  }
  for (int i = 0; i < 15; ++i) cells[i] = before[i];
  seen << wrong << " wrong";
}

bool lacksWindow(u8 slotNo) {
  return QamFpgaIf[slotNo] == nullptr;
}

}  // namespace conformance
