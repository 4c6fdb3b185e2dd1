// The flash folder of a run: made by --init-flash, and checked before the cards read it.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace headend {

// Creates a flash folder with the sample bitstream. Throws std::runtime_error; refuses a folder that has a
// bitstream.
void initFlash(const std::filesystem::path& folder);

// Throws std::runtime_error if there is no such folder.
void requireFlash(const std::filesystem::path& folder);

// Reports through `say` the parameter files that a card will not use as they are. Throws std::runtime_error
// for a file that the card cannot open for update, because the card would replace it with defaults.
void checkParameterFiles(const std::filesystem::path& folder, const std::vector<int>& slots,
                         const std::function<void(const std::string&)>& say);

}  // namespace headend
