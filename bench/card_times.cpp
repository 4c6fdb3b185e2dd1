// Measures a virtual headend with one card. One program, because all of it includes the whole headend.
//   card_times calibration | panel [CAPTURE.ts] | status
// Exit code 0; 1 when a measurement fails or leaves its bounds, 2 for a wrong call.
#include "bench/card_times.h"

#include <fmt/format.h>

#include <exception>
#include <string>

#include "headend/flash_folder.h"

namespace bench {

headend::Options oneCard(const std::filesystem::path& folder) {
  headend::initFlash(folder / "flash");
  headend::Options options;
  options.flash = folder / "flash";
  options.slots = {0};
  options.log = folder / "log";
  return options;
}

}  // namespace bench

int main(int argc, char** argv) {
  const std::string what = argc > 1 ? argv[1] : "";
  try {
    if (what == "calibration" && argc == 2)
      bench::calibrationTimes();
    else if (what == "panel" && argc <= 3)
      bench::panelTimes(argc > 2 ? argv[2] : nullptr);
    else if (what == "status" && argc == 2)
      bench::statusPass();
    else {
      fmt::print(stderr, "card_times: call it with calibration, panel [CAPTURE.ts] or status\n");
      return 2;
    }
  } catch (const std::exception& error) {
    fmt::print(stderr, "card_times {}: {}\n", what, error.what());
    return 1;
  }
  return 0;
}
