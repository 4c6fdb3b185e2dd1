// Puts a file in the place of another, whole or not at all. For whoever saves something that a reader must
// never find half written: qamctl, the headend's report, its flash.
#pragma once

#include <filesystem>
#include <span>

#include "platform/types.h"

namespace client {

// Writes `bytes` to `aside`, a name in the same folder, flushes it, renames it to `file`, flushes the folder.
// Throws std::system_error that says which step failed; then `aside` is gone and `file` is as it was. Without
// the flushes only the end of the process is survived, not that of the machine: `flushFile` makes up for it.
enum class Flush { kNow, kLater };
void replaceFile(const std::filesystem::path& file, const std::filesystem::path& aside,
                 std::span<const u8> bytes, Flush flush = Flush::kNow);

// Appends `bytes` to a file that is there, whole or not at all. Throws std::system_error.
void appendToFile(const std::filesystem::path& file, std::span<const u8> bytes, Flush flush = Flush::kNow);

// Flushes a file and its folder. Throws std::system_error.
void flushFile(const std::filesystem::path& file);

}  // namespace client
