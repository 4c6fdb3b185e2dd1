// A folder of a test's own, gone when the test is over, files in it and their bytes.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <vector>

#include "platform/types.h"

namespace test {

namespace fs = std::filesystem;
using Bytes = std::vector<u8>;

template <class T>
std::vector<T> operator+(std::vector<T> a, const std::vector<T>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

class Scratch {
 public:
  explicit Scratch(const fs::path& in = fs::temp_directory_path()) {
    std::string name = (in / "headend-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) std::abort();
    path = name;
  }
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;
  ~Scratch() {
    std::error_code ignored;
    fs::remove_all(path, ignored);
  }
  fs::path path;
};

inline Bytes readFile(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
inline std::string readText(const fs::path& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}
inline void writeFile(const fs::path& file, std::span<const u8> content) {
  fs::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary);
  out.write(reinterpret_cast<const char*>(content.data()), static_cast<std::streamsize>(content.size()));
}
inline std::size_t filesIn(const fs::path& folder) {
  std::size_t files = 0;
  for ([[maybe_unused]] const auto& entry : fs::recursive_directory_iterator(folder)) ++files;
  return files;
}

}  // namespace test
