#include "client/replace_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace client {
namespace {

bool writeAll(int fd, std::span<const u8> bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(fd, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(n));
  }
  return true;
}

// A rename lasts once its folder has been flushed too.
void flushFolder(const std::filesystem::path& folder) {
  const int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

void replaceFile(const std::filesystem::path& file, const std::filesystem::path& aside,
                 std::span<const u8> bytes, Flush flush) {
  const auto demand = [&](bool done, const char* failure) {
    if (done) return;
    const int error = errno;
    ::unlink(aside.c_str());
    throw std::system_error(error, std::generic_category(), failure);
  };
  const int fd = ::open(aside.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  demand(fd >= 0, "opening a new file beside it failed");
  const bool written = writeAll(fd, bytes) && (flush == Flush::kLater || ::fsync(fd) == 0);
  const int writeError = errno;
  const bool closed = ::close(fd) == 0;
  if (!written) errno = writeError;
  demand(written, "writing failed");
  demand(closed, "closing failed");
  demand(::rename(aside.c_str(), file.c_str()) == 0, "renaming failed");
  if (flush == Flush::kNow) flushFolder(file.parent_path());
}

void appendToFile(const std::filesystem::path& file, std::span<const u8> bytes, Flush flush) {
  const int fd = ::open(file.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
  if (fd < 0) throw std::system_error(errno, std::generic_category(), "opening failed");
  const off_t size = ::lseek(fd, 0, SEEK_END);
  const bool written = writeAll(fd, bytes) && (flush == Flush::kLater || ::fdatasync(fd) == 0);
  const int error = errno;
  const bool undone = written || ::ftruncate(fd, size) == 0;
  ::close(fd);
  if (!written) {
    throw std::system_error(error, std::generic_category(),
                            undone ? "writing failed" : "writing failed, and left a part");
  }
}

void flushFile(const std::filesystem::path& file) {
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  const bool flushed = fd >= 0 && ::fsync(fd) == 0;
  const int error = errno;
  if (fd >= 0) ::close(fd);
  if (!flushed) throw std::system_error(error, std::generic_category(), "flushing failed");
  flushFolder(file.parent_path());
}

}  // namespace client
