#include "client/programme_tables.h"

#include <fmt/format.h>

#include <algorithm>
#include <numeric>

#include "base/text.h"
#include "platform/wire.h"

namespace client {
namespace {

constexpr u16 kLengthMask = 0x0FFF;
constexpr std::size_t kLengthEnd = 3;  // of table_id and section_length

constexpr std::size_t kCaSize = 6;  // tag, length, system, PID

constexpr std::size_t kSdtHeadSize = 3;   // original_network_id and a reserved byte
constexpr std::size_t kSdtEntrySize = 5;  // before its descriptors

bool isCa(std::span<const u8> descriptor) {
  return descriptor[0] == kCaTag && descriptor.size() >= kCaSize;
}

// Reads a section from front to back. Throws Error for a length that exceeds the data.
class Reader {
 public:
  Reader(std::span<const u8> data, std::string name) : rest_(data), name_(std::move(name)) {}
  // The body of a section.
  Reader(const Section& section, PsiType type, const std::string& owner)
      : Reader(std::span(section.bytes)
                   .subspan(kSectionHeaderSize, section.bytes.size() - kSectionHeaderSize - kCrcSize),
               fmt::format("{} of {}", tableName(type), owner)) {}

  bool atEnd() const { return rest_.empty(); }
  std::span<const u8> take(std::size_t size) {
    if (size > rest_.size()) fail("{} is malformed: lengths in it do not fit", name_);
    const auto part = rest_.first(size);
    rest_ = rest_.subspan(size);
    return part;
  }
  // What begins with a head of `size` bytes that ends in a length of one byte or of 12 bits.
  std::span<const u8> takeDescriptor() { return take(rest_.size() < 2 ? 2 : 2u + rest_[1]); }
  std::span<const u8> takeWithLoop(std::size_t size) {
    return take(rest_.size() < size ? size : size + (wire::get16(&rest_[size - 2]) & kLengthMask));
  }
  std::span<const u8> takeEntry(PsiType type) {
    return type == PAT ? take(4) : type == CAT ? takeDescriptor() : takeWithLoop(kSdtEntrySize);
  }

 private:
  std::span<const u8> rest_;
  std::string name_;
};

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
    fail("{} of {} is incomplete, not current or of several streams: it cannot be changed, only loaded anew",
         tableName(type), owner);
  }
  flags_ = sections[0].bytes[1] & 0xF0;
  version_ = nextVersion(sections[0].version());
  sections_.resize(sections.size());
  for (const Section& section : sections) {
    Reader body(section, type, owner);
    const auto head = body.take(type == SDT_C ? kSdtHeadSize : 0);
    head_.assign(head.begin(), head.end());
    auto& entries = sections_[section.number()];
    entries.clear();  // a store may have a section twice, to send it more often
    while (!body.atEnd()) {
      const auto entry = body.takeEntry(type);
      entries.emplace_back(entry.begin(), entry.end());
    }
  }
  before_ = entries();
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
  if (bodySize(sections_.back()) + entry.size() > kRoom || sections_.size() > 256)
    fail("an entry of {} bytes has no place in the {}", entry.size(), tableName(type_));
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
    Bytes bytes = {tableId(type_)};
    base::append16(bytes, static_cast<u16>(std::size_t{flags_} << 8 | length));
    base::append16(bytes, extension_);
    bytes.insert(bytes.end(), {static_cast<u8>(0xC0 | version_ << 1 | 1), static_cast<u8>(result.size()),
                               static_cast<u8>(sections_.size() - 1)});
    base::append(bytes, head_);
    for (const Bytes& entry : entries) base::append(bytes, entry);
    base::append32(bytes, crc32(bytes));
    result.push_back({.pid = tablePid(type_).value(), .bytes = std::move(bytes)});
  }
  return result;
}

std::vector<Bytes> entriesIn(PsiType type, const std::vector<Section>& sections, const std::string& owner) {
  return sections.empty() ? std::vector<Bytes>() : EntryTable(type, sections, owner).entries();
}

std::optional<Bytes> findEntry(const std::vector<Bytes>& entries, u16 number) {
  const auto found = std::ranges::find(entries, number, entryNumber);
  return found == entries.end() ? std::nullopt : std::optional(*found);
}

Bytes patEntry(u16 number, u16 pid) {
  Bytes entry;
  base::append16(entry, number);
  base::append16(entry, static_cast<u16>(0xE000 | pid));
  return entry;
}

std::string serviceName(std::span<const u8> entry) {
  std::string name;
  auto rest = entry.subspan(kSdtEntrySize);
  while (rest.size() >= 2 && rest.size() >= 2u + rest[1]) {
    const auto d = rest.first(2u + rest[1]);
    rest = rest.subspan(d.size());
    if (d[0] != kServiceTag || d.size() < 4) continue;
    const std::size_t at = 4u + d[3];  // after type and provider
    if (at < d.size() && at + 1 + d[at] <= d.size()) name = base::dvbText(d.subspan(at + 1, d[at]));
  }
  return name;
}

u16 PidField::pid(std::span<const u8> bytes) const {
  return wire::get16(&bytes[at]) & kPidMask;
}

void PidField::set(Bytes& bytes, u16 pid) const {
  wire::put16(&bytes[at], static_cast<u16>((wire::get16(&bytes[at]) & ~kPidMask) | (pid & kPidMask)));
}

std::vector<PidField> pidsOfPmt(const Section& pmt) {
  const std::string owner = fmt::format("programme {}", pmt.extension());
  std::vector<PidField> fields;
  const auto add = [&](const u8& at, PidField field) {
    field.at = static_cast<std::size_t>(&at - pmt.bytes.data());
    fields.push_back(field);
  };
  Reader body(pmt, PMT, owner);
  const auto takeLoop = [&] {
    Reader loop(body.takeWithLoop(2).subspan(2), fmt::format("{} of {}", tableName(PMT), owner));
    while (!loop.atEnd()) {
      const auto d = loop.takeDescriptor();
      if (isCa(d)) add(d[4], {.use = PidField::Use::kCa, .caSystem = wire::get16(&d[2])});
    }
  };
  add(body.take(2)[0], {.use = PidField::Use::kPcr});
  takeLoop();
  while (!body.atEnd()) {
    const auto stream = body.take(3);
    add(stream[1], {.use = PidField::Use::kStream, .streamType = stream[0]});
    takeLoop();
  }
  return fields;
}

std::set<u16> caSystemsOf(const Section& pmt) {
  std::set<u16> systems;
  for (const PidField& field : pidsOfPmt(pmt)) {
    if (field.use == PidField::Use::kCa) systems.insert(field.caSystem);
  }
  return systems;
}

std::optional<PidField> pidOfCatEntry(std::span<const u8> entry) {
  if (!isCa(entry)) return std::nullopt;
  return PidField{.at = 4, .use = PidField::Use::kCa, .caSystem = wire::get16(&entry[2])};
}

void setVersion(Section& section, u8 version) {
  Bytes& bytes = section.bytes;
  bytes[5] = static_cast<u8>((bytes[5] & ~(kVersionMask << 1)) | version << 1);
  bytes.resize(bytes.size() - kCrcSize);
  base::append32(bytes, crc32(bytes));
}

bool isWhole(const std::vector<Section>& sections) {
  std::set<u8> numbers;
  for (const Section& s : sections) {
    const Section& first = sections[0];
    if (!s.current() || s.extension() != first.extension() || s.version() != first.version() ||
        s.lastNumber() != first.lastNumber() || s.number() > s.lastNumber()) {
      return false;
    }
    numbers.insert(s.number());
  }
  return !sections.empty() && numbers.size() == sections[0].lastNumber() + 1u;
}

}  // namespace client
