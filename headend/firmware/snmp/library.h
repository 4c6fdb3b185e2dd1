// Net-SNMP set up for this process: configured by lines, without this machine's files, with its messages in
// the headend's log; and its two sessions, for requests and for notifications.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "base/numbers.h"
#include "headend/firmware/snmp/engine_identity.h"
#include "headend/firmware/snmp/secrets.h"

struct snmp_log_message;
struct snmp_pdu;
struct snmp_session;

namespace headend {

class SnmpLibrary {
 public:
  using Address = base::Address;

  // `folder` is the only folder that the library may read. Throws std::runtime_error if the library reports
  // any error, because a rejected line could allow access by mistake.
  SnmpLibrary(const std::filesystem::path& folder, EngineIdentity engine,
              const std::vector<std::string>& configuration, std::function<void(const std::string&)> say);

  // Both throw std::runtime_error with the address in the message.
  void listen(const Address& address);
  void openSink(const Address& address, const SnmpSecrets& secrets);

  int fd() const { return fd_; }  // receives requests; -1 if it does not listen

  void readRequest();                 // reads a received request and answers it
  bool send(snmp_pdu* notification);  // takes ownership; false with errno if the host refuses

 private:
  void say(const std::string& text);
  static int take(int major, int minor, void* message, void* self);

  EngineIdentity engine_;
  std::function<void(const std::string&)> say_;
  bool isStarted_ = false;
  std::string complaints_;  // until it is running
  std::string lastSaid_;
  std::uint64_t timesSaid_ = 0;
  void* requests_ = nullptr;
  int fd_ = -1;
  snmp_session* sink_ = nullptr;
};

}  // namespace headend
