// Writes a file completely or not at all. Used by qamctl for saved files.
#pragma once

#include <filesystem>
#include <span>

#include "platform/types.h"

namespace commands {

// Throws std::runtime_error with the file's name; an existing file is then unchanged.
void saveFile(const std::filesystem::path& file, std::span<const u8> bytes);

}  // namespace commands
