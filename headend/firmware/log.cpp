#include "headend/firmware/log.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace headend {

Log::Log(const std::string& file) : file_(stderr) {
  if (file.empty()) return;
  file_ = std::fopen(file.c_str(), "we");
  if (file_ == nullptr)
    throw std::runtime_error(fmt::format("cannot open log {}: {}", file, std::strerror(errno)));
  std::setvbuf(file_, nullptr, _IOLBF, BUFSIZ);  // after a crash the last line is in the file
}

Log::~Log() {
  if (file_ != stderr) std::fclose(file_);
}

void Log::line(Nanos now, std::string_view who, std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
  // A full disk is reported at the end (`complete`); it does not stop the run.
  const std::string whole = fmt::format("[{:>6}.{:09}] {}: {}\n", now / kSecond, now % kSecond, who, text);
  std::fwrite(whole.data(), 1, whole.size(), file_);
  ++lines_;
}

bool Log::complete() {
  return onStderr() || (std::fflush(file_) == 0 && std::ferror(file_) == 0);
}

}  // namespace headend
