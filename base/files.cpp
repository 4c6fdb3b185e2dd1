#include "base/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>

namespace base {
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

std::string readFile(const std::filesystem::path& file, std::size_t most) {
  const auto fail = [](int error) { throw std::system_error(error, std::generic_category()); };
  const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) fail(errno);
  std::string content;
  std::array<char, 65536> part{};
  ssize_t n = 0;
  while (content.size() <= most && (n = ::read(fd, part.data(), part.size())) > 0)
    content.append(part.data(), static_cast<std::size_t>(n));
  const int error = errno;
  ::close(fd);
  if (n < 0) fail(error);
  if (content.size() > most) fail(EFBIG);
  return content;
}

std::filesystem::path followLinks(std::filesystem::path path) {
  std::error_code ignored;
  for (int links = 0; std::filesystem::is_symlink(path, ignored); ++links) {
    if (links == 40) throw std::system_error(ELOOP, std::generic_category());
    path = path.parent_path() / std::filesystem::read_symlink(path);
  }
  return path;
}

void writeOutput(const std::filesystem::path& path, std::span<const u8> bytes) {
  const std::filesystem::path target = followLinks(path);
  std::error_code ignored;
  if (!std::filesystem::exists(target, ignored) || std::filesystem::is_regular_file(target, ignored)) {
    return replaceFile(target, target.string() + ".new", bytes);
  }
  const int fd = ::open(target.c_str(), O_WRONLY | O_CLOEXEC);
  const bool written = fd >= 0 && writeAll(fd, bytes);
  const int error = errno;
  if (fd >= 0) ::close(fd);
  if (!written) throw std::system_error(error, std::generic_category());
}

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

}  // namespace base
