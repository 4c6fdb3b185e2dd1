// The flash file system: the folder that stands for "/tffs0". Opens files below it for the module, and
// replaces files whole: after a crash or a full disk there is the old file or the new one, never a part of
// either.
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
  // A run that is faster than its disk flushes what it has replaced at its end (`flush`), not each time: then
  // only a crash of the machine itself, and not of this process, can cost a file.
  explicit Flash(std::filesystem::path folder, base::Flush flush = base::Flush::kNow)
      : folder_(std::move(folder)), flush_(flush) {}

  const std::filesystem::path& folder() const { return folder_; }

  // Where "/tffs0/..." lies on this machine; nothing for a path outside the flash.
  std::optional<std::filesystem::path> hostPath(const std::string& path) const;

  std::FILE* open(const char* path, const char* mode) const;

  // Writes aside and renames. Empty when done, else what went wrong on which file.
  std::string replace(const std::string& path, std::span<const u8> content);
  // Appends to a file that is there, whole or not at all. As above.
  std::string append(const std::string& path, std::span<const u8> content);
  std::string flush();  // what is left to be flushed; empty when done

 private:
  std::filesystem::path folder_;
  base::Flush flush_;
  std::set<std::filesystem::path> unflushed_;
};

}  // namespace headend
