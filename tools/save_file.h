// Writes a file whole or not at all. Used by qamctl for what it saves.
#pragma once

#include <filesystem>
#include <span>

#include "platform/types.h"

namespace tools {

// Writes aside, flushes, renames. Throws std::system_error with the file's name; what stood there then stands
// still.
void saveFile(const std::filesystem::path& file, std::span<const u8> bytes);

}  // namespace tools
