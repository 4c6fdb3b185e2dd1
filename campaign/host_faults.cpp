#include "campaign/host_faults.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <set>

namespace campaign {
namespace {

bool isFlash(const char* path) {
  return std::string_view(path).starts_with("flash/");
}

std::map<int, std::string>& openFiles() {  // of the flash, for writing
  static std::map<int, std::string> files;
  return files;
}
std::set<const std::FILE*>& streams() {
  static std::set<const std::FILE*> all;
  return all;
}

}  // namespace

FlashFaults& flashFaults() {
  static FlashFaults faults;
  return faults;
}

void FlashFaults::begin(const std::string& name, u64 after) {
  faults_.push_back({name, operation_ + after});
}

void FlashFaults::end(const std::string& name) {
  const auto found = std::ranges::find(faults_, name, &Fault::name);
  if (found != faults_.end()) faults_.erase(found);
}

void FlashFaults::endAll() {
  faults_.clear();
  cutAt_ = 0;
}

void FlashFaults::cutAt(u64 operation, bool midway, std::function<void()> cut) {
  cutAt_ = operation_ + operation;
  midway_ = midway;
  cut_ = std::move(cut);
}

bool FlashFaults::fails(std::string_view name) {
  const bool present = std::ranges::any_of(
      faults_, [&](const Fault& each) { return each.name == name && operation_ > each.from; });
  injected_ += present ? 1 : 0;
  return present;
}

void FlashFaults::operation(const std::function<void()>& half) {
  if (++operation_ != cutAt_) return;
  cutAt_ = 0;
  if (midway_ && half) half();
  cut_();
}

}  // namespace campaign

// ---- The calls of the system ----

extern "C" {

using campaign::flashFaults;

int __real_open(const char* path, int flags, ...);
ssize_t __real_write(int fd, const void* bytes, size_t size);
int __real_rename(const char* from, const char* to);
std::FILE* __real_fopen(const char* path, const char* mode);
std::size_t __real_fread(void* into, std::size_t size, std::size_t count, std::FILE* stream);

int __wrap_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    std::va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  const bool writes = campaign::isFlash(path) && (flags & O_ACCMODE) != O_RDONLY;
  if (writes) flashFaults().operation();
  if (writes && flashFaults().fails("read-only")) {
    errno = EROFS;
    return -1;
  }
  const int fd = __real_open(path, flags, mode);
  campaign::openFiles().erase(fd);
  if (writes && fd >= 0) campaign::openFiles()[fd] = path;
  return fd;
}

ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
  const auto file = campaign::openFiles().find(fd);
  if (file == campaign::openFiles().end()) return __real_write(fd, bytes, size);
  const auto half = [&] { static_cast<void>(__real_write(fd, bytes, size / 2)); };
  flashFaults().operation(half);
  for (const auto& [name, error] : {std::pair("no space", ENOSPC), std::pair("write fails", EIO)}) {
    if (!flashFaults().fails(name)) continue;
    half();
    errno = error;
    return -1;
  }
  if (const auto& told = flashFaults().onWrite) told(file->second, {static_cast<const char*>(bytes), size});
  const ssize_t written = __real_write(fd, bytes, size);
  if (written < 0 && errno == ENOSPC) _exit(campaign::kExitNoResult);  // of this machine, not of the history
  return written;
}

int __wrap_rename(const char* from, const char* to) {
  if (!campaign::isFlash(to)) return __real_rename(from, to);
  flashFaults().operation();
  if (flashFaults().fails("rename fails") || flashFaults().fails("read-only")) {
    errno = EROFS;
    return -1;
  }
  const int result = __real_rename(from, to);
  if (const auto& told = flashFaults().onRename; told && result == 0) told(to);
  return result;
}

std::FILE* __wrap_fopen(const char* path, const char* mode) {
  const bool ofFlash = campaign::isFlash(path);
  if (ofFlash) flashFaults().operation();
  std::FILE* stream = __real_fopen(path, mode);
  campaign::streams().erase(stream);
  if (ofFlash && stream != nullptr) campaign::streams().insert(stream);
  return stream;
}

std::size_t __wrap_fread(void* into, std::size_t size, std::size_t count, std::FILE* stream) {
  if (!campaign::streams().contains(stream)) return __real_fread(into, size, count, stream);
  flashFaults().operation();
  if (!flashFaults().fails("short read")) return __real_fread(into, size, count, stream);
  return __real_fread(into, 1, size * count / 2, stream) / size;  // half of it
}

}  // extern "C"
