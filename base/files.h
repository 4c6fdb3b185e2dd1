// Reads whole files, and replaces files completely or not at all: a reader never finds a partial file.
#pragma once

#include <filesystem>
#include <span>
#include <string>

#include "platform/types.h"

namespace base {

// The content of a file. Throws std::system_error with the reason if the file cannot be read or is longer
// than `most`.
std::string readFile(const std::filesystem::path& path, std::size_t most);

// The target of a path, whether or not a file exists: without links. Throws std::system_error for a loop.
std::filesystem::path followLinks(std::filesystem::path path);

// Writes an output that an operator names: a plain file is replaced completely, at the target of its links; a
// device or pipe receives the bytes. Throws std::system_error.
void writeOutput(const std::filesystem::path& path, std::span<const u8> bytes);

// Writes `bytes` to `aside`, a name in the same folder, flushes it, renames it to `path`, flushes the folder.
// Throws std::system_error with the failed step; then `aside` is removed and `path` is unchanged. Without the
// flushes, the data survives a crash of the process but not of the machine: `flushFile` can flush it later.
enum class Flush { kNow, kLater };
void replaceFile(const std::filesystem::path& path, const std::filesystem::path& aside,
                 std::span<const u8> bytes, Flush flush = Flush::kNow);

// Appends `bytes` to an existing file, completely or not at all. Throws std::system_error.
void appendToFile(const std::filesystem::path& path, std::span<const u8> bytes, Flush flush = Flush::kNow);

// Opens /dev/null in place of standard streams that are closed, so that no file gets their numbers. To be
// called before a program opens anything.
void openStandardStreams();

// Flushes a file and its folder. Throws std::system_error.
void flushFile(const std::filesystem::path& path);

}  // namespace base
