// The files that a run writes line by line; and the debug lines of a run, each with its virtual time and the
// task that printed it: lines of the cards and lines of the headend. To a file, or to stderr.
#pragma once

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "headend/fail.h"
#include "headend/kernel/kernel.h"

namespace headend {

// Receives a line for the log, with an error or a state.
using Say = std::function<void(const std::string& text)>;

// A full disk does not stop the run: `complete` reports it at the end.
class OutputFile {
 public:
  // Throws std::runtime_error with `what` ("log") and the file.
  OutputFile(const char* what, const std::string& file) : file_(std::fopen(file.c_str(), "we"), std::fclose) {
    if (file_ == nullptr) fail("cannot open {} {}: {}", what, file, std::strerror(errno));
  }
  std::FILE* get() const { return file_.get(); }
  void write(std::string_view text) { std::fwrite(text.data(), 1, text.size(), get()); }
  // Whether everything has been written so far.
  bool complete() const { return std::fflush(get()) == 0 && std::ferror(get()) == 0; }

 private:
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file_;
};

class Log {
 public:
  // Empty: stderr. Throws std::runtime_error that names the file.
  explicit Log(const std::string& file) {
    if (file.empty()) return;
    file_.emplace("log", file);
    std::setvbuf(file_->get(), nullptr, _IOLBF, BUFSIZ);  // after a crash the last line is in the file
  }

  void line(Nanos now, std::string_view who, std::string_view text) {
    while (text.ends_with('\n') || text.ends_with('\r')) text.remove_suffix(1);
    const std::string whole = fmt::format("[{:>6}.{:09}] {}: {}\n", now / kSecond, now % kSecond, who, text);
    std::fwrite(whole.data(), 1, whole.size(), file_ ? file_->get() : stderr);
    ++lines_;
  }
  std::uint64_t lines() const { return lines_; }
  bool complete() const { return onStderr() || file_->complete(); }
  bool onStderr() const { return !file_; }

 private:
  std::optional<OutputFile> file_;
  std::uint64_t lines_ = 0;
};

}  // namespace headend
