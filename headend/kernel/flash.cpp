#include "headend/kernel/flash.h"

#include <fmt/format.h>

#include <cstring>
#include <system_error>

namespace headend {
namespace {

constexpr const char* kRoot = "/tffs0/";

}  // namespace

std::optional<std::filesystem::path> Flash::hostPath(const std::string& path) const {
  if (!path.starts_with(kRoot)) return std::nullopt;
  const std::filesystem::path below =
      std::filesystem::path(path.substr(std::strlen(kRoot))).lexically_normal();
  if (below.empty() || below.is_absolute() || *below.begin() == "..") return std::nullopt;
  return folder_ / below;
}

std::FILE* Flash::open(const char* path, const char* mode) const {
  const auto host = hostPath(path);
  // On a host a folder can be opened for reading; on the flash it is not a file.
  if (!host || std::filesystem::is_directory(*host)) return nullptr;
  return std::fopen(host->c_str(), mode);
}

std::string Flash::replace(const std::string& path, std::span<const u8> content) {
  const auto host = hostPath(path);
  if (!host) return fmt::format("cannot save {}: it lies outside the flash", path);
  std::error_code ignored;
  std::filesystem::create_directories(host->parent_path(), ignored);  // an error is reported by the open
  try {
    base::replaceFile(*host, host->string() + ".new", content, flush_);
    if (flush_ == base::Flush::kLater) unflushed_.insert(*host);
  } catch (const std::system_error& e) {
    return fmt::format("cannot save {}: {}", host->string(), e.what());
  }
  return {};
}

std::string Flash::append(const std::string& path, std::span<const u8> content) {
  const auto host = hostPath(path);
  if (!host) return fmt::format("cannot save {}: it lies outside the flash", path);
  try {
    base::appendToFile(*host, content, flush_);
    if (flush_ == base::Flush::kLater) unflushed_.insert(*host);
  } catch (const std::system_error& e) {
    return fmt::format("cannot save {}: {}", host->string(), e.what());
  }
  return {};
}

std::string Flash::flush() {
  for (const std::filesystem::path& file : unflushed_) {
    try {
      base::flushFile(file);
    } catch (const std::system_error& e) {
      return fmt::format("cannot save {}: {}", file.string(), e.what());
    }
  }
  unflushed_.clear();
  return {};
}

}  // namespace headend
