// Gathers the PSI of a capture: the sections of the eight tables that a card carries, of the newest version
// each, and an account of everything that was left out. Used by whoever uploads a capture (qamctl, the
// headend).
#pragma once

#include <filesystem>
#include <iosfwd>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/link.h"

namespace client {

// What a note reports. The first group concerns the file, the second packets, the third sections, the last
// tables.
enum class NoteKind {
  kLeadingBytes,
  kLostSync,
  kTrailingBytes,

  kTransportError,
  kScrambled,
  kContinuityError,
  kBadPacket,
  kNotSections,

  kCutSection,
  kBadSection,
  kCrcError,
  kNotCurrent,
  kOlderVersion,
  kWrongPid,
  kOtherTable,

  kIncomplete,
  kSeveralPats,
  kNoPat,
  kBadPmtPid,
};

// One kind of loss, of one table on one PID where it has these, and how often it happened.
struct Note {
  NoteKind kind{};
  std::optional<u16> pid;
  std::optional<u8> tableId;
  std::size_t count = 0;
  std::string text;  // a sentence for the operator
};

struct Capture {
  std::vector<Section> sections;  // ordered by table (as PsiType), PID, extension, section number
  std::vector<Note> notes;
  std::size_t packets = 0;
};

// Reads the file twice, in pieces: the PAT may come after packets of the programme maps that it names.
// Packets may have 188, 192 or 204 bytes. Throws Error.
Capture readCapture(const std::filesystem::path& file);

// The same for a stream that can be rewound; `name` stands for it in messages.
Capture readCapture(std::istream& stream, const std::string& name);

// The sections, in order, that packets of one PID carry back to back; continuity counters are not looked at,
// since a card stamps its own. Sections with errors are left out.
std::vector<Section> gatherSections(const std::vector<Packet>& packets);

}  // namespace client
