// Reads and edits the tables of a programme: the entry lists of PAT, CAT and SDT, and the PIDs that a PMT
// names.
#pragma once

#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "client/link.h"
#include "mpeg/section.h"
#include "platform/wire.h"

namespace client {

inline constexpr u16 kPidMask = 0x1FFF;
inline constexpr u8 kVersionMask = 0x1F;
inline constexpr u8 kEitFlags = 0x03;  // schedule, present and following
inline constexpr u16 kNoNetwork = 0;   // "programme" of the PAT that names the NIT's PID

// A PAT, CAT or SDT: entries after a head that each section repeats. Entries stay in their sections, so
// adding and then removing an entry leaves the table unchanged.
class EntryTable {
 public:
  // An empty table of one section; `head` is the data before the entries (three bytes of an SDT).
  EntryTable(PsiType type, u16 extension, Bytes head);
  // From all sections of a table, in any order. `owner` is its name in messages ("channel 1.2"). Throws Error
  // for a table that is incomplete, not current, of several extensions or malformed.
  EntryTable(PsiType type, const std::vector<Section>& sections, const std::string& owner);

  u16 extension() const { return extension_; }
  const Bytes& head() const { return head_; }
  std::vector<Bytes> entries() const;
  bool isChanged() const { return entries() != before_; }
  void add(Bytes entry);
  void remove(const std::function<bool(const Bytes&)>& shouldRemove);
  void change(const std::function<void(Bytes&)>& edit);  // the size of an entry must not change

  // With the next version after the given sections, or 0 if there were none.
  std::vector<Section> sections() const;

 private:
  std::size_t bodySize(const std::vector<Bytes>& entries) const;

  PsiType type_;
  u16 extension_;
  u8 flags_;  // the high four bits before section_length
  u8 version_ = 0;
  Bytes head_;
  std::vector<std::vector<Bytes>> sections_;
  std::vector<Bytes> before_;  // the given entries
};

// The entries of a table as EntryTable reads them; none without sections.
std::vector<Bytes> entriesIn(PsiType type, const std::vector<Section>& sections, const std::string& owner);
// The entry of a PAT or SDT with this number; nullopt: none.
std::optional<Bytes> findEntry(const std::vector<Bytes>& entries, u16 number);

// Entries of a PAT.
// programme_number; of an SDT service_id.
inline u16 entryNumber(std::span<const u8> entry) {
  return wire::get16(entry.data());
}
inline u16 entryPid(std::span<const u8> entry) {
  return wire::get16(&entry[2]) & kPidMask;
}
Bytes patEntry(u16 number, u16 pid);

// Entries of an SDT. The name is printable UTF-8, empty without a service descriptor.
std::string serviceName(std::span<const u8> entry);
inline u8 eitFlags(std::span<const u8> entry) {
  return entry[2] & kEitFlags;
}
inline void setEitFlags(Bytes& entry, u8 flags) {
  entry[2] = static_cast<u8>((entry[2] & ~kEitFlags) | (flags & kEitFlags));
}

// A position where a PMT section or a CAT entry names a PID.
struct PidField {
  enum class Use { kStream, kPcr, kCa };
  std::size_t at = 0;  // of the two bytes that hold it
  Use use{};
  u8 streamType = 0;  // of kStream
  u16 caSystem = 0;   // of kCa

  u16 pid(std::span<const u8> bytes) const;
  void set(Bytes& bytes, u16 pid) const;  // the three bits before it are unchanged
};
// Throw Error if lengths in it do not match.
std::vector<PidField> pidsOfPmt(const Section& pmt);
std::set<u16> caSystemsOf(const Section& pmt);
std::optional<PidField> pidOfCatEntry(std::span<const u8> entry);  // nullopt for another descriptor

// Sets the version of a section, and recomputes its CRC.
void setVersion(Section& section, u8 version);
inline u8 nextVersion(u8 version) {
  return (version + 1) & kVersionMask;
}

// True if all sections from 0 to the last exist, all of one extension and version.
bool isWhole(const std::vector<Section>& sections);

}  // namespace client
