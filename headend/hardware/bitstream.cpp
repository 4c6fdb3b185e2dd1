#include "headend/hardware/bitstream.h"

#include <array>
#include <random>

namespace headend {
namespace {

constexpr std::uint32_t kPreambleSize = 32;
constexpr std::array<u8, 4> kSync = {'Q', 'A', 'M', 'B'};
constexpr std::uint32_t kFieldSize = 4;
constexpr std::uint32_t kPayloadSize = 120'000;  // similar to a mid-sized part's compressed stream

constexpr std::array<std::uint32_t, 256> makeCrcTable() {
  std::array<std::uint32_t, 256> table{};
  for (std::uint32_t i = 0; i < table.size(); ++i) {
    std::uint32_t c = i;
    for (int k = 0; k < 8; ++k) c = (c & 1) != 0 ? 0xEDB88320U ^ c >> 1 : c >> 1;
    table[i] = c;
  }
  return table;
}
constexpr auto kCrcTable = makeCrcTable();

std::uint32_t crcStep(std::uint32_t crc, u8 byte) {
  return kCrcTable[(crc ^ byte) & 0xFF] ^ crc >> 8;
}

void appendBigEndian(std::vector<u8>& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<u8>(value >> shift));
}

}  // namespace

std::vector<u8> makeSampleBitstream() {
  std::vector<u8> stream;
  stream.reserve(kPreambleSize + kSync.size() + 2 * kFieldSize + kPayloadSize);
  stream.resize(kPreambleSize, 0xFF);
  for (const u8 byte : kSync) stream.push_back(byte);
  const std::size_t covered = stream.size();
  appendBigEndian(stream, kPayloadSize);
  std::mt19937 content(1);  // NOLINT(cert-msc51-cpp): the same sample each time
  for (std::uint32_t i = 0; i < kPayloadSize; ++i) stream.push_back(static_cast<u8>(content()));

  std::uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = covered; i < stream.size(); ++i) crc = crcStep(crc, stream[i]);
  appendBigEndian(stream, ~crc);
  return stream;
}

void BitstreamReceiver::bit(bool value) {
  shift_ = static_cast<u8>(shift_ << 1 | (value ? 1 : 0));
  if (++bits_ < 8) return;
  bits_ = 0;
  byte(shift_);
}

void BitstreamReceiver::byte(u8 value) {
  const std::uint32_t at = position_++;
  switch (state_) {
    case State::kPreamble:
      if (value != 0xFF) return enter(State::kRefused);
      if (position_ == kPreambleSize) enter(State::kSync);
      return;
    case State::kSync:
      if (value != kSync[at]) return enter(State::kRefused);
      if (position_ == kSync.size()) enter(State::kLength);
      return;
    case State::kLength:
      crc_ = crcStep(crc_, value);
      length_ = length_ << 8 | value;
      if (position_ == kFieldSize) enter(length_ == 0 ? State::kRefused : State::kPayload);
      return;
    case State::kPayload:
      crc_ = crcStep(crc_, value);
      if (position_ == length_) enter(State::kCrc);
      return;
    case State::kCrc:
      expected_ = expected_ << 8 | value;
      if (position_ == kFieldSize) enter(expected_ == ~crc_ ? State::kAccepted : State::kRefused);
      return;
    case State::kAccepted:
    case State::kRefused:
      return;
  }
}

}  // namespace headend
