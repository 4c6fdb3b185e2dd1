// What a check has seen, as text. A row of the table passes if this is the text that the row expects.
#pragma once

#include <cstddef>

namespace conformance {

class Seen {
 public:
  void clear() { text_[0] = 0; }
  Seen& next();  // a space, if there is text already
  Seen& operator<<(const char* text);
  Seen& operator<<(int number);
  // `ticks`, and for one more than `wanted` also `wanted`: a tick may occur between two calls.
  Seen& addTicks(int ticks, int wanted);

  const char* text() const { return text_; }
  bool operator==(const char* expected) const;

 private:
  static constexpr std::size_t kSize = 120;
  char text_[kSize];
};

}  // namespace conformance
