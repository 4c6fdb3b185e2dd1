// Collects the PSI of a capture: the sections of the eight tables that a card carries, in the newest version,
// and a list of everything that was skipped. Used by programs that upload a capture (qamctl, the headend).
#pragma once

#include <filesystem>
#include <iosfwd>
#include <string>
#include <vector>

#include "client/link.h"

namespace client {

struct Capture {
  std::vector<Section> sections;   // ordered by table (as PsiType), PID, extension, section number
  std::vector<std::string> notes;  // sentences about what was skipped or is missing
  std::size_t packets = 0;
};

// Reads the file twice, in pieces: the PAT may come after packets of the programme maps that it names.
// Packets may have 188, 192 or 204 bytes. Throws Error.
Capture readCapture(const std::filesystem::path& file);

// The same for a stream that can be rewound; `name` is its name in messages.
Capture readCapture(std::istream& stream, const std::string& name);

}  // namespace client
