#include "base/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace base {
namespace {

// Throws std::system_error with errno, and the step that failed unless that is empty.
void demand(bool done, const char* step = "") {
  const std::error_code code(errno, std::generic_category());
  if (!done) throw *step == '\0' ? std::system_error(code) : std::system_error(code, step);
}

class File {
 public:
  File(const std::filesystem::path& path, int flags, const char* step = "")
      : fd_(::open(path.c_str(), flags | O_CLOEXEC, 0666)) {
    demand(fd_ >= 0, step);
  }
  ~File() {
    if (fd_ >= 0) ::close(fd_);
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int fd() const { return fd_; }
  bool write(std::span<const u8> bytes) const {
    while (!bytes.empty()) {
      const ssize_t n = ::write(fd_, bytes.data(), bytes.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return false;
      bytes = bytes.subspan(static_cast<std::size_t>(n));
    }
    return true;
  }
  bool close() { return ::close(std::exchange(fd_, -1)) == 0; }

 private:
  int fd_;
};

// A rename lasts once its folder has been flushed too.
void flushFolder(const std::filesystem::path& folder) {
  const int fd = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  ::fsync(fd);
  ::close(fd);
}

}  // namespace

std::string readFile(const std::filesystem::path& path, std::size_t most) {
  const File file(path, O_RDONLY);
  std::string content;
  std::array<char, 65536> part{};
  ssize_t n = 0;
  while (content.size() <= most && (n = ::read(file.fd(), part.data(), part.size())) > 0)
    content.append(part.data(), static_cast<std::size_t>(n));
  demand(n >= 0);
  if (content.size() > most) throw std::system_error(EFBIG, std::generic_category());
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
  if (!std::filesystem::exists(target, ignored) || std::filesystem::is_regular_file(target, ignored))
    return replaceFile(target, target.string() + ".new", bytes);
  demand(File(target, O_WRONLY).write(bytes));
}

void replaceFile(const std::filesystem::path& path, const std::filesystem::path& aside,
                 std::span<const u8> bytes, Flush flush) {
  try {
    File file(aside, O_WRONLY | O_CREAT | O_TRUNC, "opening a new file beside it failed");
    demand(file.write(bytes) && (flush == Flush::kLater || ::fsync(file.fd()) == 0), "writing failed");
    demand(file.close(), "closing failed");
    demand(::rename(aside.c_str(), path.c_str()) == 0, "renaming failed");
  } catch (const std::system_error&) {
    ::unlink(aside.c_str());
    throw;
  }
  if (flush == Flush::kNow) flushFolder(path.parent_path());
}

void appendToFile(const std::filesystem::path& path, std::span<const u8> bytes, Flush flush) {
  const File file(path, O_WRONLY | O_APPEND, "opening failed");
  const off_t size = ::lseek(file.fd(), 0, SEEK_END);
  if (file.write(bytes) && (flush == Flush::kLater || ::fdatasync(file.fd()) == 0)) return;
  const int error = errno;
  const bool isUndone = ::ftruncate(file.fd(), size) == 0;
  throw std::system_error(error, std::generic_category(),
                          isUndone ? "writing failed" : "writing failed, and left a part");
}

void flushFile(const std::filesystem::path& path) {
  demand(::fsync(File(path, O_RDONLY, "flushing failed").fd()) == 0, "flushing failed");
  flushFolder(path.parent_path());
}

void openStandardStreams() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    if (::fcntl(fd, F_GETFD) < 0) ::open("/dev/null", O_RDWR);  // gets the lowest number that is free
}

}  // namespace base
