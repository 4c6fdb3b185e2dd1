// The file of an upload, on the disk without a name: it is gone with the object, and with the process.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <cstddef>
#include <cstdint>
#include <string>

namespace tools {

class UploadedFile : boost::noncopyable {
 public:
  UploadedFile();  // in the folder for temporary files; throws std::system_error
  ~UploadedFile();

  void append(const char* bytes, std::size_t count);  // throws std::system_error
  std::uint64_t size() const { return size_; }
  std::uint64_t freeBytes() const;  // of its disk
  // By which this process can open it.
  std::string path() const;
  // Whether what has come may be the beginning of a transport stream.
  bool hasPackets() const;

 private:
  int file_ = -1;
  std::uint64_t size_ = 0;
};

}  // namespace tools
