#include "tools/save_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

namespace tools {
namespace {

int writeAll(int fd, std::span<const u8> bytes) {
  while (!bytes.empty()) {
    const ssize_t written = write(fd, bytes.data(), bytes.size());
    if (written < 0 && errno != EINTR) return errno;
    if (written > 0) bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return fsync(fd) == 0 ? 0 : errno;
}

}  // namespace

void saveFile(const std::filesystem::path& file, std::span<const u8> bytes) {
  const auto fail = [&](int error, const char* what) {
    throw std::system_error(error, std::generic_category(),
                            fmt::format("{}: cannot be {}", file.string(), what));
  };
  std::error_code unknown;
  const auto kind = std::filesystem::status(file, unknown).type();
  if (kind != std::filesystem::file_type::not_found && kind != std::filesystem::file_type::regular) {
    fail(EEXIST, "replaced: it is no plain file");
  }
  const auto aside = std::filesystem::path(fmt::format("{}.{}.part", file.string(), getpid()));
  const int fd = open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
  if (fd < 0) fail(errno, "written");
  int error = writeAll(fd, bytes);
  if (close(fd) != 0 && error == 0) error = errno;
  if (error == 0 && rename(aside.c_str(), file.c_str()) != 0) error = errno;
  if (error == 0) return;
  unlink(aside.c_str());
  fail(error, "written");
}

}  // namespace tools
