// Times of a virtual headend with one card, each printed as lines of JSON for figures.py. card_times.cpp has
// the program, which runs one of them.
#pragma once

#include <filesystem>

#include "headend/headend.h"

namespace bench {

inline constexpr int kPriority = 240;  // of a measuring task: below the service of calibration and the menu

// With a new flash folder and a log below `folder`, in real time.
headend::Options oneCard(const std::filesystem::path& folder);

// All throw std::runtime_error if the headend does something else than is measured.
void calibrationTimes();
void panelTimes(const char* capture);  // null: no PSI
void statusPass();

}  // namespace bench
