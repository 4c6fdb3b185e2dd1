// The flash file system: the host folder for "/tffs0". Opens files in it for the module, and replaces whole
// files: after a crash or a full disk there is the old file or the new one, never a part of either.
#pragma once

#include <cstdio>
#include <filesystem>
#include <optional>
#include <set>
#include <span>
#include <string>

#include "base/files.h"
#include "platform/types.h"

namespace headend {

class Flash {
 public:
  // A run faster than its disk flushes replaced files at its end (`flush`), not each time: then only a crash
  // of the machine, not of this process, can lose a file.
  explicit Flash(std::filesystem::path folder, base::Flush flush = base::Flush::kNow)
      : folder_(std::move(folder)), flush_(flush) {}

  const std::filesystem::path& folder() const { return folder_; }

  // The path of "/tffs0/..." on this machine; nullopt for a path outside the flash.
  std::optional<std::filesystem::path> hostPath(const std::string& path) const;

  std::FILE* open(const char* path, const char* mode) const;

  // The content of a file; nullopt if there is no such file. Throws std::system_error if it cannot be read or
  // is longer than `most`.
  std::optional<std::string> read(const std::string& path, std::size_t most) const;

  // Writes to a temporary file and renames it. Returns an empty text on success, else the error and the file.
  std::string replace(const std::string& path, std::span<const u8> content);
  // Appends to an existing file, completely or not at all. Returns as above.
  std::string append(const std::string& path, std::span<const u8> content);
  std::string flush();  // flushes the remaining files; empty on success

 private:
  template <typename Action>
  std::string save(const std::string& path, Action action);

  std::filesystem::path folder_;
  base::Flush flush_;
  std::set<std::filesystem::path> unflushed_;
};

}  // namespace headend
