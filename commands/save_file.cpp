#include "commands/save_file.h"

#include <fmt/format.h>
#include <unistd.h>

#include <stdexcept>
#include <system_error>

#include "base/files.h"

namespace commands {

void saveFile(const std::filesystem::path& file, std::span<const u8> bytes) {
  try {
    const std::filesystem::path target = base::followLinks(file);
    std::error_code unknown;
    const auto kind = std::filesystem::status(target, unknown).type();
    if (kind != std::filesystem::file_type::not_found && kind != std::filesystem::file_type::regular) {
      throw std::runtime_error(fmt::format("{}: cannot be replaced: it is no plain file", file.string()));
    }
    base::replaceFile(target, fmt::format("{}.{}.part", target.string(), ::getpid()), bytes);
  } catch (const std::system_error& e) {
    throw std::runtime_error(fmt::format("{}: cannot be written: {}", file.string(), e.what()));
  }
}

}  // namespace commands
