#include "tools/web/uploaded_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <system_error>

#include "mpeg/packet_reader.h"

namespace tools {
namespace {

[[noreturn]] void failUpload(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

UploadedFile::UploadedFile() {
  const char* folder = std::getenv("TMPDIR");
  std::string name = fmt::format("{}/qamweb.XXXXXX", folder != nullptr && *folder != 0 ? folder : "/tmp");
  file_ = mkostemp(name.data(), O_CLOEXEC);
  if (file_ < 0) failUpload("the upload cannot be stored");
  unlink(name.c_str());
}

UploadedFile::~UploadedFile() {
  ::close(file_);
}

void UploadedFile::append(const char* bytes, std::size_t count) {
  while (count > 0) {
    const ssize_t written = ::write(file_, bytes, count);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) failUpload("the upload cannot be stored");
    bytes += written;
    count -= static_cast<std::size_t>(written);
    size_ += static_cast<std::uint64_t>(written);
  }
}

std::uint64_t UploadedFile::freeBytes() const {
  struct statvfs disk {};
  return fstatvfs(file_, &disk) == 0 ? std::uint64_t{disk.f_bavail} * disk.f_frsize : 0;
}

std::string UploadedFile::path() const {
  return fmt::format("/proc/self/fd/{}", file_);
}

bool UploadedFile::hasPackets() const {
  std::ifstream stream(path(), std::ios::binary);
  return mpeg::PacketReader(stream).next() != nullptr;
}

}  // namespace tools
