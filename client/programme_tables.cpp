#include "client/programme_tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

#include "mpeg/dvb_text.h"
#include "platform/wire.h"

namespace client {
namespace {

constexpr u16 kPidMask = 0x1FFF;
constexpr u16 kLengthMask = 0x0FFF;
constexpr u8 kVersionMask = 0x1F;
constexpr std::size_t kLengthEnd = 3;  // of table_id and section_length

constexpr u8 kCaTag = 0x09;
constexpr std::size_t kCaSize = 6;  // tag, length, system, PID
constexpr u8 kServiceTag = 0x48;

constexpr std::size_t kPatEntrySize = 4;
constexpr std::size_t kSdtHeadSize = 3;   // original_network_id and a reserved byte
constexpr std::size_t kSdtEntrySize = 5;  // before its descriptors
constexpr u8 kEitFlags = 0x03;            // schedule, present and following

std::span<const u8> bodyOf(const Section& section) {
  return std::span(section.bytes)
      .subspan(kSectionHeaderSize, section.bytes.size() - kSectionHeaderSize - kCrcSize);
}

void setCrc(Bytes& bytes) {
  const std::size_t at = bytes.size() - kCrcSize;
  wire::put32(&bytes[at], crc32(std::span(bytes).first(at)));
}

std::size_t headSize(PsiType type) {
  return type == SDT_C ? kSdtHeadSize : 0;
}

// Of the entry that begins there; more than there is where it is cut.
std::size_t entrySize(PsiType type, std::span<const u8> rest) {
  switch (type) {
    case PAT:
      return kPatEntrySize;
    case CAT:
      return rest.size() < 2 ? 2 : 2u + rest[1];
    default:
      return rest.size() < kSdtEntrySize ? kSdtEntrySize
                                         : kSdtEntrySize + (wire::get16(&rest[3]) & kLengthMask);
  }
}

// Calls `take` for each descriptor of a loop; false when one is cut.
template <typename Take>
bool forDescriptors(std::span<const u8> loop, const Take& take) {
  while (!loop.empty()) {
    if (loop.size() < 2 || loop.size() < 2u + loop[1]) return false;
    take(loop.first(2u + loop[1]));
    loop = loop.subspan(2u + loop[1]);
  }
  return true;
}

[[noreturn]] void failMalformed(const std::string& owner, PsiType type) {
  throw Error(fmt::format("{} of {} is malformed: lengths in it do not fit", tableName(type), owner));
}

}  // namespace

EntryTable::EntryTable(PsiType type, u16 extension, Bytes head)
    : type_(type),
      extension_(extension),
      flags_(type == SDT_C ? 0xF0 : 0xB0),
      head_(std::move(head)),
      sections_(1) {}

EntryTable::EntryTable(PsiType type, const std::vector<Section>& sections, const std::string& owner)
    : EntryTable(type, sections.at(0).extension(), {}) {
  if (!isWhole(sections)) {
    throw Error(fmt::format(
        "{} of {} is incomplete, not current or of several streams: it cannot be changed, only loaded anew",
        tableName(type), owner));
  }
  flags_ = sections[0].bytes[1] & 0xF0;
  version_ = nextVersion(sections[0].version());
  sections_.resize(sections.size());
  for (const Section& section : sections) {
    auto rest = bodyOf(section);
    if (rest.size() < headSize(type)) failMalformed(owner, type);
    head_.assign(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(headSize(type)));
    rest = rest.subspan(headSize(type));
    auto& entries = sections_[section.number()];
    entries.clear();  // a store may have a section twice, to send it more often
    while (!rest.empty()) {
      const std::size_t size = entrySize(type, rest);
      if (size > rest.size()) failMalformed(owner, type);
      entries.emplace_back(rest.begin(), rest.begin() + static_cast<std::ptrdiff_t>(size));
      rest = rest.subspan(size);
    }
  }
}

std::vector<Bytes> EntryTable::entries() const {
  std::vector<Bytes> all;
  for (const auto& section : sections_) all.insert(all.end(), section.begin(), section.end());
  return all;
}

std::size_t EntryTable::bodySize(const std::vector<Bytes>& entries) const {
  return std::transform_reduce(entries.begin(), entries.end(), head_.size(), std::plus<>(),
                               [](const Bytes& entry) { return entry.size(); });
}

void EntryTable::add(Bytes entry) {
  constexpr std::size_t kRoom = kMaxSectionSize - kSectionHeaderSize - kCrcSize;
  if (bodySize(sections_.back()) + entry.size() > kRoom) sections_.emplace_back();
  if (bodySize(sections_.back()) + entry.size() > kRoom || sections_.size() > 256) {
    throw Error(fmt::format("an entry of {} bytes has no place in the {}", entry.size(), tableName(type_)));
  }
  sections_.back().push_back(std::move(entry));
}

void EntryTable::remove(const std::function<bool(const Bytes&)>& shouldRemove) {
  for (auto& section : sections_) std::erase_if(section, shouldRemove);
  // One section stays, because its head names the stream even without entries.
  std::erase_if(sections_, [](const auto& section) { return section.empty(); });
  if (sections_.empty()) sections_.emplace_back();
}

void EntryTable::change(const std::function<void(Bytes&)>& edit) {
  for (auto& section : sections_) std::ranges::for_each(section, edit);
}

std::vector<Section> EntryTable::sections() const {
  std::vector<Section> result;
  for (const auto& entries : sections_) {
    const std::size_t length = bodySize(entries) + kSectionHeaderSize - kLengthEnd + kCrcSize;
    Section section{.pid = tablePid(type_).value(), .bytes = Bytes(kSectionHeaderSize)};
    Bytes& bytes = section.bytes;
    bytes[0] = tableId(type_);
    wire::put16(&bytes[1], static_cast<u16>(std::size_t{flags_} << 8 | length));
    wire::put16(&bytes[3], extension_);
    bytes[5] = static_cast<u8>(0xC0 | version_ << 1 | 1);
    bytes[6] = static_cast<u8>(result.size());
    bytes[7] = static_cast<u8>(sections_.size() - 1);
    bytes.insert(bytes.end(), head_.begin(), head_.end());
    for (const Bytes& entry : entries) bytes.insert(bytes.end(), entry.begin(), entry.end());
    bytes.resize(bytes.size() + kCrcSize);
    setCrc(bytes);
    result.push_back(std::move(section));
  }
  return result;
}

u16 entryNumber(std::span<const u8> entry) {
  return wire::get16(entry.data());
}

u16 entryPid(std::span<const u8> entry) {
  return wire::get16(&entry[2]) & kPidMask;
}

Bytes patEntry(u16 number, u16 pid) {
  Bytes entry(kPatEntrySize);
  wire::put16(entry.data(), number);
  wire::put16(&entry[2], static_cast<u16>(0xE000 | pid));
  return entry;
}

std::string serviceName(std::span<const u8> entry) {
  std::string name;
  forDescriptors(entry.subspan(kSdtEntrySize), [&](std::span<const u8> d) {
    if (d[0] != kServiceTag || d.size() < 4) return;
    const std::size_t at = 4u + d[3];  // after type and provider
    if (at < d.size() && at + 1 + d[at] <= d.size()) name = dvbText(d.subspan(at + 1, d[at]));
  });
  return name;
}

u8 eitFlags(std::span<const u8> entry) {
  return entry[2] & kEitFlags;
}

void setEitFlags(Bytes& entry, u8 flags) {
  entry[2] = static_cast<u8>((entry[2] & ~kEitFlags) | (flags & kEitFlags));
}

u16 PidField::pid(std::span<const u8> bytes) const {
  return wire::get16(&bytes[at]) & kPidMask;
}

void PidField::set(Bytes& bytes, u16 pid) const {
  wire::put16(&bytes[at], static_cast<u16>((wire::get16(&bytes[at]) & ~kPidMask) | (pid & kPidMask)));
}

std::vector<PidField> pidsOfPmt(const Section& pmt) {
  const auto all = std::span(pmt.bytes).first(pmt.bytes.size() - kCrcSize);
  const std::string owner = fmt::format("programme {}", pmt.extension());
  std::vector<PidField> fields;
  std::size_t at = kSectionHeaderSize;
  // The loop whose length is at `at`; afterwards `at` is the position after the loop.
  const auto readLoop = [&] {
    const std::size_t begin = at + 2;
    if (begin > all.size()) failMalformed(owner, PMT);
    const std::size_t length = wire::get16(&all[at]) & kLengthMask;
    if (length > all.size() - begin) failMalformed(owner, PMT);
    const auto loop = all.subspan(begin, length);
    const bool fits = forDescriptors(loop, [&](std::span<const u8> d) {
      if (d[0] != kCaTag || d.size() < kCaSize) return;
      fields.push_back({.at = static_cast<std::size_t>(d.data() - all.data()) + 4,
                        .use = PidField::Use::kCa,
                        .caSystem = wire::get16(&d[2])});
    });
    if (!fits) failMalformed(owner, PMT);
    at = begin + length;
  };
  if (at + 2 > all.size()) failMalformed(owner, PMT);
  fields.push_back({.at = at, .use = PidField::Use::kPcr});
  at += 2;
  readLoop();
  while (at < all.size()) {
    if (at + 3 > all.size()) failMalformed(owner, PMT);
    fields.push_back({.at = at + 1, .use = PidField::Use::kStream, .streamType = all[at]});
    at += 3;
    readLoop();
  }
  return fields;
}

std::optional<PidField> pidOfCatEntry(std::span<const u8> entry) {
  if (entry[0] != kCaTag || entry.size() < kCaSize) return std::nullopt;
  return PidField{.at = 4, .use = PidField::Use::kCa, .caSystem = wire::get16(&entry[2])};
}

void setVersion(Section& section, u8 version) {
  section.bytes[5] = static_cast<u8>((section.bytes[5] & ~(kVersionMask << 1)) | version << 1);
  setCrc(section.bytes);
}

u8 nextVersion(u8 version) {
  return (version + 1) & kVersionMask;
}

bool isWhole(const std::vector<Section>& sections) {
  if (sections.empty()) return false;
  const Section& first = sections[0];
  std::vector<bool> found(first.lastNumber() + 1u);
  for (const Section& s : sections) {
    if (!s.current() || s.extension() != first.extension() || s.version() != first.version() ||
        s.lastNumber() != first.lastNumber() || s.number() > s.lastNumber()) {
      return false;
    }
    found[s.number()] = true;
  }
  return std::ranges::all_of(found, std::identity());
}

}  // namespace client
