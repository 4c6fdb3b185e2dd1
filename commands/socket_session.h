// A session with a chassis over its sockets: for programs outside it.
#pragma once

#include <optional>
#include <string>

#include "client/udp_link.h"
#include "commands/command.h"

namespace commands {

class SocketSession : public Session {
 public:
  // "ADDR:PORT" each. The sockets are opened when a command uses them.
  SocketSession(std::string management, std::string calibration)
      : management_(std::move(management)), calibration_(std::move(calibration)) {}

  client::Link& link() override;
  client::CalibrationLink& calibration() override { return calibration_; }
  std::string chassis() const override { return management_; }
  // In $XDG_STATE_HOME, else in ~/.local/state, else in the folder for temporary files; the same for all
  // programs. Throws std::filesystem::filesystem_error.
  std::filesystem::path rescueFolder() const override;
  std::optional<client::InputCounts> inputs() override;

  // Of the records that are not kept, as of the last replies.
  std::vector<std::string> recordWarnings() const {
    return link_ ? warnings(*link_) : std::vector<std::string>();
  }

 private:
  std::string management_;
  std::optional<client::UdpLink> link_;
  client::UdpCalibrationLink calibration_;
};

}  // namespace commands
