// The debug lines of a run, each with its virtual time and the task that printed it: lines of the cards and
// lines of the headend. To a file, or to stderr.
#pragma once

#include <cstdio>
#include <string>
#include <string_view>

#include "headend/kernel/kernel.h"

namespace headend {

class Log {
 public:
  // Empty: stderr. Throws std::runtime_error that names the file.
  explicit Log(const std::string& file);
  Log(const Log&) = delete;
  Log& operator=(const Log&) = delete;
  ~Log();

  void line(Nanos now, std::string_view who, std::string_view text);
  std::uint64_t lines() const { return lines_; }
  bool complete();  // whether all lines have been written so far
  bool onStderr() const { return file_ == stderr; }

 private:
  std::FILE* file_;
  std::uint64_t lines_ = 0;
};

}  // namespace headend
