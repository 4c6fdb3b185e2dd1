#include "commands/socket_session.h"

#include <fmt/format.h>

#include <cstdlib>

#include "commands/status.h"

namespace commands {
namespace {

namespace fs = std::filesystem;

// Only absolute ones count, so that a rescue file is found again from any folder.
fs::path folderIn(const char* variable) {
  const char* value = std::getenv(variable);
  const fs::path folder = value != nullptr ? value : "";
  return folder.is_absolute() ? folder : fs::path();
}

fs::path stateFolder() {
  if (fs::path state = folderIn("XDG_STATE_HOME"); !state.empty()) return state;
  if (const fs::path home = folderIn("HOME"); !home.empty()) return home / ".local" / "state";
  return fs::temp_directory_path();
}

}  // namespace

client::Link& SocketSession::link() {
  if (link_) return *link_;
  link_.emplace(management_);
  link_->onStart = [this](u16 slot, bool begins) {
    progress(begins ? fmt::format("slot {}: waiting for the card's start-up", slot + 1) : "");
  };
  return *link_;
}

fs::path SocketSession::rescueFolder() const {
  fs::path folder = stateFolder() / "qamctl" / management_;
  fs::create_directories(folder);
  return folder;
}

std::optional<client::InputCounts> SocketSession::inputs() {
  const auto status = statusOf(link());
  return status ? inputsOf(*status) : std::nullopt;
}

}  // namespace commands
