// The flash file system: the folder that stands for "/tffs0". Opens files below it for the module, and
// replaces files whole: after a crash or a full disk there is the old file or the new one, never a part of
// either.
#pragma once

#include <cstdio>
#include <filesystem>
#include <optional>
#include <span>
#include <string>

#include "platform/types.h"

namespace headend {

class Flash {
 public:
  explicit Flash(std::filesystem::path folder) : folder_(std::move(folder)) {}

  const std::filesystem::path& folder() const { return folder_; }

  // Where "/tffs0/..." lies on this machine; nothing for a path outside the flash.
  std::optional<std::filesystem::path> hostPath(const std::string& path) const;

  std::FILE* open(const char* path, const char* mode) const;

  // Writes aside, flushes, renames. Empty when done, else what went wrong on which file.
  std::string replace(const std::string& path, std::span<const u8> content) const;

 private:
  std::filesystem::path folder_;
};

}  // namespace headend
