// The session with the receiver of notifications. A trap is sent once. An INFORM waits for its answer; with
// SNMPv3 the receiver is its authority, so the receiver's engine must be discovered first. Nothing here
// blocks: time-outs run in wall time, and `checkTimeOuts` has to be called often.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <optional>

#include "headend/firmware/snmp/library.h"

namespace headend {

class NotificationSink : boost::noncopyable {
 public:
  // `own` is the authority for traps. Throws std::runtime_error with the address in the message.
  NotificationSink(const base::Address& address, const SnmpSecrets& secrets, const EngineIdentity& own,
                   bool isInform);

  bool isInform() const { return isInform_; }
  int fd() const { return fd_; }
  bool isReady() const;                    // false if the receiver's engine has to be discovered
  bool isBusy() const { return isBusy_; }  // waits for an answer

  // Takes ownership. False with errno if the host refuses.
  bool send(snmp_pdu* message);
  void discover();

  void read();  // an answer that has been received
  void checkTimeOuts();
  // Whether the message was acknowledged, once it is known. A discovery has a result only if it failed.
  std::optional<bool> takeResult();

 private:
  static int takeAnswer(int operation, snmp_session* session, int request, snmp_pdu* answer, void* self);
  void finish(bool isAcknowledged);
  void settle();
  void forgetEngine();

  const bool isInform_;
  std::optional<SnmpSecrets::User> user_;  // SNMPv3
  snmp_session* session_ = nullptr;
  int fd_ = -1;
  bool isBusy_ = false;
  bool discovers_ = false;
  std::optional<bool> result_;
};

}  // namespace headend
