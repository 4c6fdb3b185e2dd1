// Counts violations of a device's rules by a driver, by name. The devices count, the report reads.
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace headend {

class Violations {
 public:
  void count(const std::string& kind) { ++counts_[kind]; }
  const std::map<std::string, std::uint64_t>& counts() const { return counts_; }

 private:
  std::map<std::string, std::uint64_t> counts_;
};

}  // namespace headend
