// Collects the PSI of a capture: the sections of the eight tables that a card carries, in the newest version,
// and a list of everything that was skipped. Used by programs that upload a capture (qamctl, the headend).
#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>
#include <vector>

#include "client/link.h"

namespace client {

// What a note reports. The first group is about the file, the second about packets, the third about sections,
// the last about tables.
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

struct Note {
  NoteKind kind{};
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

// The same for a stream that can be rewound; `name` is its name in messages.
Capture readCapture(std::istream& stream, const std::string& name);

// The sections, in order, from successive packets of one PID. Continuity counters are ignored, because a card
// sets its own. Sections with errors are skipped.
std::vector<Section> gatherSections(const std::vector<Packet>& packets);

}  // namespace client
