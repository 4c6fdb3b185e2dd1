// The files of the page, which are in the program.
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace tools {

struct PageFile {
  const char* path;
  const char* type;
  std::string_view content;
};
std::span<const PageFile> pageFiles();

// The page as one file with its data, a JSON text without '<'. It runs no script but its own, and needs no
// server.
std::string reportPage(const std::string& data);

}  // namespace tools
