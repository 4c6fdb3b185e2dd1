// Text of the front panel and the alarms for the world outside, which reads UTF-8.
#pragma once

#include <string>
#include <string_view>

namespace headend {

// What is no GBK, as the half of a character, becomes U+FFFD.
std::string utf8OfGbk(std::string_view gbk);

}  // namespace headend
