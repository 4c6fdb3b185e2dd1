#include "base/progress.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdio>

namespace base {

void ProgressLine::show(const std::string& text) {
  if ((text.empty() && !isShown_) || isatty(STDERR_FILENO) == 0) return;
  fmt::print(stderr, "\r{}\x1B[K\r", text);
  std::fflush(stderr);
  isShown_ = !text.empty();
}

void ReadingProgress::show(std::uint64_t bytes) {
  next_ = bytes + kStep;
  if (size_ > 0) line_.show(fmt::format("{}: {} %", what_, 100 * bytes / size_));
}

}  // namespace base
