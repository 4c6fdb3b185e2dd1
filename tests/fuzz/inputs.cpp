// Targets without a card: files and datagrams from outside.
#include <fmt/format.h>
#include <sys/mman.h>

#include <boost/crc.hpp>
#include <sstream>

#include "client/pid_map.h"
#include "client/psi_capture.h"
#include "headend/firmware/snmp/ber.h"
#include "headend/hardware/bitstream.h"
#include "headend/hardware/file_input.h"
#include "headend/jobs.h"
#include "mpeg/section.h"
#include "platform/agent.h"
#include "protocol/alarms.h"
#include "protocol/panel.h"
#include "protocol/records.h"
#include "protocol/stream_records.h"
#include "protocol/variables.h"
#include "tests/fuzz/fuzz.h"
#include "tests/headend/scratch.h"

namespace fuzz {
namespace {

// A file of this process, for code that takes a name.
std::string fileWith(Input content) {
  static const int kFile = ::memfd_create("fuzz", 0);
  require(::ftruncate(kFile, 0) == 0 && ::pwrite(kFile, content.data(), content.size(), 0) >= 0,
          "a file is written");
  return fmt::format("/proc/self/fd/{}", kFile);
}

std::string textOf(Input input) {
  return {input.begin(), input.end()};
}

// Errors for the user end a take without a finding.
template <typename Take>
void withErrors(Take take) {
  try {
    take();
  } catch (const std::runtime_error&) {
  } catch (const commands::Help&) {
  }
}

// Nothing, or a value that its own encoder and decoder keep.
template <typename Decode, typename Encode>
void keeps(Input data, Decode decode, Encode encode) {
  const auto value = decode(data);
  if (!value) return;
  const Bytes once = encode(*value);
  const auto again = decode(once);
  require(again.has_value() && encode(*again) == once,
          "a record that was decoded is encoded and decoded again");
}

client::Capture captureOf(const Bytes& stream) {
  std::istringstream text(textOf(stream));
  return client::readCapture(text, "input");
}

Bytes streamOf(const std::vector<mpeg::Section>& sections) {
  std::vector<mpeg::Packet> packets;
  std::map<u16, u8> continuity;
  for (const mpeg::Section& section : sections) mpeg::packSection(section, continuity[section.pid], packets);
  while (packets.size() < 5) packets.push_back(mpeg::makePacket(kNullPid, false, 0));  // enough for a raster
  Bytes stream;
  for (const mpeg::Packet& packet : packets) base::append(stream, packet);
  return stream;
}

void checkCapture(const client::Capture& capture) {
  for (const mpeg::Section& section : capture.sections)
    require(mpeg::hasLongForm(section.bytes) && mpeg::crc32(section.bytes) == 0,
            "a section of a capture is right");
  if (capture.sections.empty()) return;
  const client::Capture again = captureOf(streamOf(capture.sections));
  require(again.sections == capture.sections, "the sections of a capture are read back from their packets");
}

void takeCapture(Input input) {
  withErrors([&] { checkCapture(captureOf({input.begin(), input.end()})); });
}

// Sections with a right length and CRC, so that the fuzzer reaches what is behind these checks.
void takeSections(Input input) {
  std::vector<mpeg::Section> sections;
  for (Fields fields(input); fields.more();) {
    mpeg::Section section{.pid = static_cast<u16>(fields.word() & 0x1FFFU), .bytes = {}};
    const Input content = fields.bytes(fields.word() % mpeg::kMaxSectionSize);
    section.bytes.assign(content.begin(), content.end());
    section.bytes.resize(std::clamp<std::size_t>(content.size(), mpeg::kSectionHeaderSize,
                                                 mpeg::kMaxSectionSize - mpeg::kCrcSize));
    const std::size_t length = section.bytes.size() + mpeg::kCrcSize - 3;
    section.bytes[1] = static_cast<u8>((section.bytes[1] & 0xF0U) | length >> 8U);
    section.bytes[2] = static_cast<u8>(length);
    base::append32(section.bytes, mpeg::crc32(section.bytes));
    sections.push_back(std::move(section));
  }
  withErrors([&] { checkCapture(captureOf(streamOf(sections))); });
}

// A stream is played in a loop.
void takeStream(Input input) {
  withErrors([&] {
    headend::FileInput file(fileWith(input));
    headend::Nanos last = 0;
    for (u64 i = 0; i < 3 * file.survey().packets && file.nextArrival() != headend::kNever; ++i) {
      require(file.nextArrival() >= last, "packets arrive one after the other");
      last = file.nextArrival();
      require(file.take()[0] == mpeg::kSyncByte, "a packet begins with its sync byte");
    }
  });
}

void takePidMap(Input input) {
  withErrors([&] {
    const auto entries = client::parseMapFile(textOf(input), "input").entries;
    require(client::parseMapFile(client::mapFileText(entries), "again").entries == entries,
            "a map is read back");
    client::checkMap(entries, {});
  });
}

void takeAlarms(Input input) {
  using headend::AlarmRecord;
  static const test::Scratch kFolder;
  constexpr std::size_t kMagic = 8;
  Bytes content(input.begin(), input.end());
  for (std::size_t at = kMagic; at + sizeof(AlarmRecord) <= content.size(); at += sizeof(AlarmRecord)) {
    const std::span<u8> record = std::span(content).subspan(at, sizeof(AlarmRecord));
    // A check of 0 is made right, so that the fuzzer need not.
    const u32 check = mpeg::crc32(record.subspan(sizeof(u32)));
    if (std::ranges::all_of(record.first(sizeof check), [](u8 byte) { return byte == 0; }))
      std::memcpy(record.data(), &check, sizeof check);
  }
  headend::Flash flash(kFolder.path, base::Flush::kLater);
  flash.replace("/tffs0/alarms/history.dat", content);
  const auto newList = [&] {
    return headend::AlarmList(
        flash, [] { return 0U; }, [](const std::string&) {});
  };
  headend::AlarmList list = newList();
  if (list.events() > headend::AlarmFile::kMostNumber - content.size()) return;  // no room for more events
  list.endAtPowerUp({0});
  list.add({.slot = 0, .port = 0, .type = protocol::kAlarmTooHot}, {"", "", "", "", "", ""});
  headend::AlarmList again = newList();
  require(again.events() == list.events() && again.standing().size() == list.standing().size(),
          "the alarms are read back");
  Bytes page = protocol::alarmPage(again.events());
  std::size_t added = 0;
  for (const AlarmRecord& event : again.history())
    added += protocol::addToPage(page, headend::outward(event)) ? 1 : 0;
  require(protocol::decodeAlarmPage(page).value().events.size() == added, "a page of events is decoded");
}

// The first byte tells which decoder takes the rest.
void takeDatagram(Input input) {
  static constexpr auto kEncode = [](const auto& value) { return protocol::encode(value); };
  static constexpr auto kEncodeMap = [](const protocol::MapChunk& chunk) {
    return protocol::encodeMapChunk(chunk.total, chunk.startPosition, chunk.entries);
  };
  using Decode = void (*)(Input);
  static constexpr Decode kDecoders[] = {
      [](Input data) { keeps(data, protocol::decodeRequest, kEncode); },
      [](Input data) { keeps(data, protocol::decodeReply, kEncode); },
      [](Input data) { keeps(data, protocol::decodeLcd, kEncode); },
      [](Input data) { keeps(data, protocol::decodeGroupStarts, kEncode); },
      [](Input data) { keeps(data, protocol::decodePidCounts, kEncode); },
      [](Input data) { keeps(data, protocol::decodeValue, protocol::encodeValue); },
      [](Input data) { keeps(data, protocol::decodeNumber, protocol::encodeNumber); },
      [](Input data) { keeps(data, protocol::decodeMapChunk, kEncodeMap); },
      [](Input data) { protocol::decodePacketsReply(data); },
      [](Input data) { protocol::decodeIntervalReply(data); },
      [](Input data) { protocol::pageFrom(data); },
      [](Input data) { protocol::decodeAlarmPage(data); },
  };
  Fields fields(input);
  const u8 kind = fields.byte();
  if (kind < std::size(kDecoders)) kDecoders[kind](fields.bytes(protocol::kMostStreamData));
}

// A whole bitstream with the input as its payload is accepted, and no longer after one bit is changed.
void takeBitstream(Input input) {
  const auto accepted = [](Input stream) {
    headend::BitstreamReceiver receiver;
    for (const u8 byte : stream) {
      for (unsigned bit = 0x80; bit != 0; bit >>= 1U) receiver.bit((byte & bit) != 0);
    }
    return receiver.accepted();
  };
  accepted(input);
  if (input.size() < 3) return;
  Fields fields(input);
  const unsigned changed = fields.word();
  const Input payload = fields.bytes(input.size());
  static const Bytes kSample = headend::makeSampleBitstream();
  constexpr std::size_t kBegin = 36;
  Bytes stream(kSample.begin(), kSample.begin() + kBegin);
  base::append32(stream, static_cast<u32>(payload.size()));
  base::append(stream, payload);
  boost::crc_32_type crc;
  crc.process_bytes(&stream[kBegin], stream.size() - kBegin);
  base::append32(stream, crc.checksum());
  require(accepted(stream), "a right bitstream is accepted");
  stream[changed / 8 % stream.size()] ^= static_cast<u8>(1U << changed % 8);
  require(!accepted(stream), "a bitstream with a wrong bit is refused");
}

// Elements in BER, each function on a block of exactly its size.
void takeBer(Input input) {
  Bytes data(input.begin(), input.end());
  const int size = static_cast<int>(data.size());
  const auto isEnd = [&](const u8* end, const int& left) {
    return end == nullptr || end == data.data() + size - left;
  };
  u8 type = 0;
  int left = size;
  u32 number = 0;
  require(isEnd(chassis::asn_parse_unsigned_int(data.data(), &left, &type, &number, sizeof number), left),
          "a number ends where the rest begins");
  Bytes text(16);
  int length = static_cast<int>(text.size());
  left = size;
  require(isEnd(chassis::asn_parse_string(data.data(), &left, &type, text.data(), &length), left),
          "a text ends where the rest begins");
}

void takeConfiguration(Input input) {
  std::string words[] = {"headend", "--config", fileWith(input)};
  char* line[] = {words[0].data(), words[1].data(), words[2].data()};
  headend::parseCommandLine(std::size(line), line);
}

void takeSecrets(Input input) {
  withErrors([&] { headend::parseSnmpSecrets(textOf(input), "input"); });
}

// A file that a command of qamctl reads: a backup, or a saved calibration.
void takeSaved(Input input) {
  Fields fields(input);
  const char* const command = fields.byte() == 0 ? "restore 1.1" : "cal restore 1";
  withErrors([&] { headend::jobOf(fmt::format("{} {}", command, fileWith(fields.bytes(input.size())))); });
}

}  // namespace

void require(bool holds, const char* property) {
  if (holds) return;
  fmt::print(stderr, "fuzz: it does not hold that {}\n", property);
  std::abort();
}

const std::vector<InputTarget> kInputTargets = {
    {"capture", takeCapture},
    {"sections", takeSections},
    {"stream", takeStream},
    {"pid-map", takePidMap},
    {"alarms", takeAlarms},
    {"datagram", takeDatagram},
    {"bitstream", takeBitstream},
    {"ber", takeBer},
    {"secrets", takeSecrets},
    {"saved", takeSaved},
    {"configuration", takeConfiguration},
};

}  // namespace fuzz

// For libFuzzer, and for any other engine with this entry: the target is in the environment, as
// FUZZ_TARGET=pid-map.
extern "C" int LLVMFuzzerTestOneInput(const u8* data, std::size_t size) {
  static const fuzz::InputTarget& target = [] {
    const char* name = std::getenv("FUZZ_TARGET");
    const auto named = [name](const fuzz::InputTarget& each) {
      return name != nullptr && name == std::string_view(each.name);
    };
    const auto found = std::ranges::find_if(fuzz::kInputTargets, named);
    fuzz::require(found != fuzz::kInputTargets.end(), "FUZZ_TARGET names a target");
    return *found;
  }();
  target.take({data, size});
  return 0;
}
