#include "headend/kernel/flash.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace headend {
namespace {

constexpr const char* kRoot = "/tffs0/";

bool writeAll(int fd, std::span<const u8> content) {
  while (!content.empty()) {
    const ssize_t n = ::write(fd, content.data(), content.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    content = content.subspan(static_cast<std::size_t>(n));
  }
  return true;
}

// A rename lasts once its folder has been flushed too.
void flushFolder(const std::filesystem::path& folder) {
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

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
  // A folder opens for reading on a host; on the flash it is no file.
  if (!host || std::filesystem::is_directory(*host)) return nullptr;
  return std::fopen(host->c_str(), mode);
}

std::string Flash::replace(const std::string& path, std::span<const u8> content) const {
  const auto host = hostPath(path);
  if (!host) return fmt::format("cannot save {}: it lies outside the flash", path);
  const std::string aside = host->string() + ".new";
  const auto failed = [&](const char* what) {
    std::string text =
        fmt::format("cannot save {}: {} failed: {}", host->string(), what, std::strerror(errno));
    ::unlink(aside.c_str());
    return text;
  };

  std::error_code ignored;
  std::filesystem::create_directories(host->parent_path(), ignored);  // what is in the way shows at the open
  const int fd = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return failed("opening a new file beside it");
  const bool written = writeAll(fd, content) && ::fsync(fd) == 0;
  const int writeError = errno;
  const bool closed = ::close(fd) == 0;
  if (!written) {
    errno = writeError;
    return failed("writing");
  }
  if (!closed) return failed("closing");
  if (::rename(aside.c_str(), host->c_str()) != 0) return failed("renaming");
  flushFolder(host->parent_path());
  return {};
}

}  // namespace headend
