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
  std::error_code ignored;
  if (!host || std::filesystem::is_directory(*host, ignored)) return nullptr;
  return std::fopen(host->c_str(), mode);
}

std::optional<std::string> Flash::read(const std::string& path, std::size_t most) const {
  const std::filesystem::path host = hostPath(path).value();
  std::error_code ignored;  // of a file that cannot be looked at: it is there, and cannot be read
  const std::filesystem::file_type type = std::filesystem::symlink_status(host, ignored).type();
  if (type == std::filesystem::file_type::not_found) return std::nullopt;
  if (!std::filesystem::is_regular_file(host, ignored))  // a pipe would block the open
    throw std::system_error(std::make_error_code(std::errc::invalid_argument));
  return base::readFile(host, most);
}

// Empty if `action` has written the file, else the error and the file.
template <typename Action>
std::string Flash::save(const std::string& path, Action action) {
  const auto host = hostPath(path);
  if (!host) return fmt::format("cannot save {}: it is outside the flash", path);
  try {
    action(*host);
  } catch (const std::system_error& e) {
    return fmt::format("cannot save {}: {}", host->string(), e.what());
  }
  if (flush_ == base::Flush::kLater) unflushed_.insert(*host);
  return {};
}

std::string Flash::replace(const std::string& path, std::span<const u8> content) {
  return save(path, [&](const std::filesystem::path& host) {
    std::error_code ignored;
    std::filesystem::create_directories(host.parent_path(), ignored);  // an error is reported by the open
    base::replaceFile(host, host.string() + ".new", content, flush_);
  });
}

std::string Flash::append(const std::string& path, std::span<const u8> content) {
  return save(path, [&](const std::filesystem::path& host) { base::appendToFile(host, content, flush_); });
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
