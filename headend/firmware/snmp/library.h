// Net-SNMP set up for this process: configured by lines, without this machine's files, with its messages in
// the headend's log; its session for requests; and the identity of its engine.
#pragma once

#include <string>
#include <vector>

#include "headend/firmware/log.h"
#include "headend/firmware/snmp/secrets.h"
#include "headend/kernel/flash.h"

struct netsnmp_transport_s;
struct snmp_log_message;
struct snmp_pdu;
struct snmp_session;

namespace headend {

// The identity of the SNMP engine over all power-ups (RFC 3414, section 2.2): its ID and its boot count. Both
// are stored in the flash; managers reject an engine that returns with a lower count as forged.
struct EngineIdentity {
  std::vector<u8> id;
  u32 boots = 1;
};

// The identity of this power-up, which is saved before it is used. If the flash has none, or a damaged one, a
// new identity is made; `say` is called to report damage. Throws std::runtime_error if it cannot be saved.
EngineIdentity bootEngine(Flash& flash, const Say& say);

std::string engineIdText(const EngineIdentity& engine);  // "0x80001f88..."

// A UDP transport of the library, which listens on the address or sends to it. Throws std::runtime_error:
// "cannot `purpose` ADDRESS: ...".
netsnmp_transport_s* openTransport(const base::Address& address, bool listens, const char* purpose);

class SnmpLibrary {
 public:
  // The folder snmp/ of the flash is the only one that the library may read. Throws std::runtime_error if the
  // library reports any error, because a rejected line could allow access by mistake.
  SnmpLibrary(Flash& flash, const std::vector<std::string>& configuration, Say say);

  // Throws std::runtime_error with the address in the message.
  void listen(const base::Address& address);

  const EngineIdentity& engine() const { return engine_; }
  int fd() const { return fd_; }  // receives requests; -1 if it does not listen

  void readRequest();  // reads a received request and answers it
  // Requests with a wrong community, user or passphrase so far.
  static u32 authenticationFailures();

 private:
  void say(const std::string& text);
  static int take(int major, int minor, void* message, void* self);

  EngineIdentity engine_;
  Say say_;
  bool isStarted_ = false;
  std::string complaints_;  // until it is running
  std::string lastSaid_;
  std::uint64_t timesSaid_ = 0;
  void* requests_ = nullptr;
  int fd_ = -1;
};

}  // namespace headend
