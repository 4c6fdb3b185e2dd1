// Net-SNMP set up for this process: configured by lines, with none of this machine's files, its messages in
// the headend's log; and its two sessions, for requests and for notifications.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "headend/firmware/snmp/engine_identity.h"
#include "headend/firmware/snmp/secrets.h"

struct snmp_log_message;
struct snmp_pdu;
struct snmp_session;

namespace headend {

class SnmpLibrary {
 public:
  using Address = std::pair<std::string, std::uint16_t>;

  // `folder` is all that the library may look into. Throws std::runtime_error when it finds anything to
  // complain of: a line that it does not take could leave a door open.
  SnmpLibrary(const std::filesystem::path& folder, EngineIdentity engine,
              const std::vector<std::string>& configuration, std::function<void(const std::string&)> say);

  // Both throw std::runtime_error that names the address.
  void listen(const Address& address);
  void openSink(const Address& address, const SnmpSecrets& secrets);

  int fd() const { return fd_; }  // where requests come in; -1 when it does not listen
  bool hasSink() const { return sink_ != nullptr; }

  void readRequest();                 // which has come, and answers it
  bool send(snmp_pdu* notification);  // takes it; false when the host does not, with errno

 private:
  void say(const std::string& text);
  static int take(int major, int minor, void* message, void* self);

  EngineIdentity engine_;
  std::function<void(const std::string&)> say_;
  bool isStarted_ = false;
  std::string complaints_;  // until it is
  std::string lastSaid_;
  std::uint64_t timesSaid_ = 0;
  void* requests_ = nullptr;
  int fd_ = -1;
  snmp_session* sink_ = nullptr;
};

}  // namespace headend
