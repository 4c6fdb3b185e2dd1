// Faults of the flash: the program's calls of the system for files in the folder `flash` pass through here
// (linked with --wrap), and fail, or come to an instant at which the power is cut. Nothing of the headend
// knows of it.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "platform/types.h"

namespace campaign {

// The folder cannot be written: nothing is known of the history.
inline constexpr int kExitNoResult = 4;

class FlashFaults {
 public:
  // From the operation `after` from now on, 0 is the next, until `end`. Names as in the history.
  void begin(const std::string& name, u64 after);
  void end(const std::string& name);
  // Calls `cut` before the operation of this number from now on, 1 is the next; or in it, with half of a
  // write done.
  void cutAt(u64 operation, bool midway, std::function<void()> cut);
  void endAll();

  // After a whole content was written to `file`, and after a file got its name.
  std::function<void(std::string_view file, std::string_view content)> onWrite;
  std::function<void(std::string_view file)> onRename;

  u64 injected() const { return injected_; }  // operations that have failed

  // For the calls of the system: an operation begins, which `half` does in part; whether it fails.
  void operation(const std::function<void()>& half = {});
  bool fails(std::string_view name);

 private:
  struct Fault {
    std::string name;
    u64 from;
  };
  std::vector<Fault> faults_;
  u64 operation_ = 0;
  u64 cutAt_ = 0;
  bool midway_ = false;
  std::function<void()> cut_;
  u64 injected_ = 0;
};

FlashFaults& flashFaults();  // of this process

}  // namespace campaign
