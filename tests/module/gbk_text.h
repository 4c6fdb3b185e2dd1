// Text of the front panel and the alarms as the C library reads it.
#pragma once

#include <gtest/gtest.h>
#include <iconv.h>

#include <cstring>
#include <string>

namespace test {

inline std::string utf8(const char* gbk) {
  // GB2312: the part of GBK that LCDs have characters for.
  iconv_t converter = iconv_open("UTF-8", "GB2312");
  std::string in = gbk;
  std::string out(2 * in.size(), '\0');
  char* from = in.data();
  char* to = out.data();
  std::size_t left = in.size();
  std::size_t room = out.size();
  EXPECT_EQ(iconv(converter, &from, &left, &to, &room), 0U) << "not the panel's code: " << gbk;
  iconv_close(converter);
  out.resize(out.size() - room);
  return out;
}

}  // namespace test
