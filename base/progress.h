// Shows on a terminal how far a long piece of work is, in one line of stderr that each text, and all
// other output, replaces. Where
// stderr is no terminal nothing is shown.
#pragma once

#include <cstdint>
#include <string>

namespace base {

class ProgressLine {
 public:
  ProgressLine() = default;
  ~ProgressLine() { show(""); }
  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  void show(const std::string& text);  // empty: removes the line

 private:
  bool isShown_ = false;
};

// For a file that is read from its start. A short file shows nothing.
class ReadingProgress {
 public:
  static constexpr std::uint64_t kStep = 32u << 20;  // bytes from one text to the next

  // `what` begins the text; `size` is that of the file in bytes.
  ReadingProgress(std::string what, std::uint64_t size) : what_(std::move(what)), size_(size) {}

  void at(std::uint64_t bytes) {
    if (bytes >= next_) show(bytes);
  }

 private:
  void show(std::uint64_t bytes);

  std::string what_;
  std::uint64_t size_;
  std::uint64_t next_ = kStep;
  ProgressLine line_;
};

}  // namespace base
