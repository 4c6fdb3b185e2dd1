// The files of the page, which are in the program.
#pragma once

#include <span>
#include <string_view>

namespace tools {

struct PageFile {
  const char* path;
  const char* type;
  std::string_view content;
};
std::span<const PageFile> pageFiles();

}  // namespace tools
