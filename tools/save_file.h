// Writes a file whole or not at all. Used by qamctl for what it saves.
#pragma once

#include <filesystem>
#include <span>

#include "platform/types.h"

namespace tools {

// Throws std::runtime_error with the file's name; what stood there then stands still.
void saveFile(const std::filesystem::path& file, std::span<const u8> bytes);

}  // namespace tools
