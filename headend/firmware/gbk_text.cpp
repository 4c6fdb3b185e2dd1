#include "headend/firmware/gbk_text.h"

#include <iconv.h>

#include <stdexcept>

namespace headend {
namespace {

class Converter {
 public:
  Converter() : handle_(iconv_open("UTF-8", "GBK")) {
    if (handle_ == reinterpret_cast<iconv_t>(-1)) {  // NOLINT(performance-no-int-to-ptr)
      throw std::runtime_error("the C library cannot convert GBK: its gconv modules are not installed");
    }
  }
  Converter(const Converter&) = delete;
  Converter& operator=(const Converter&) = delete;
  ~Converter() { iconv_close(handle_); }
  operator iconv_t() const { return handle_; }  // NOLINT(google-explicit-constructor)

 private:
  iconv_t handle_;
};

}  // namespace

std::string utf8OfGbk(std::string_view gbk) {
  const Converter converter;
  std::string in(gbk);
  std::string out(3 * in.size(), '\0');
  char* from = in.data();
  char* to = out.data();
  std::size_t left = in.size();
  std::size_t room = out.size();
  while (left > 0 && iconv(converter, &from, &left, &to, &room) == static_cast<std::size_t>(-1)) {
    for (const char c : std::string_view("\uFFFD")) *to++ = c;
    room -= 3;
    ++from;
    --left;
  }
  out.resize(static_cast<std::size_t>(to - out.data()));
  return out;
}

}  // namespace headend
