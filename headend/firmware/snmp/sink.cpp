#include "headend/firmware/snmp/sink.h"

#include <sys/select.h>

#include <cstdlib>
#include <cstring>
#include <utility>

#include "headend/fail.h"
#include "headend/firmware/snmp/net_snmp.h"

namespace headend {

NotificationSink::NotificationSink(const base::Address& address, const SnmpSecrets& secrets,
                                   const EngineIdentity& own, bool isInform)
    : isInform_(isInform) {
  constexpr long kTimeOut_us = 1'000'000;
  netsnmp_session session{};
  snmp_sess_init(&session);
  session.timeout = kTimeOut_us;
  session.retries = 2;
  session.flags |= SNMP_FLAGS_DONT_PROBE;  // the library's own discovery blocks
  EngineIdentity engine = own;
  std::string name = secrets.trapUser;
  std::string community = secrets.trapCommunity;
  if (const SnmpSecrets::User* user = secrets.find(name)) {
    user_ = *user;
    session.version = SNMP_VERSION_3;
    session.securityName = name.data();
    session.securityNameLen = name.size();
    session.securityLevel = user->hasPrivacy() ? SNMP_SEC_LEVEL_AUTHPRIV : SNMP_SEC_LEVEL_AUTHNOPRIV;
    if (!isInform) {
      session.securityEngineID = session.contextEngineID = engine.id.data();
      session.securityEngineIDLen = session.contextEngineIDLen = engine.id.size();
    }
  } else {
    session.version = SNMP_VERSION_2c;
    session.community = reinterpret_cast<u8*>(community.data());
    session.community_len = community.size();
  }
  netsnmp_transport* transport = openTransport(address, false, "send SNMP notifications to");
  fd_ = transport->sock;
  session_ = snmp_add(&session, transport, nullptr, nullptr);
  if (session_ == nullptr) fail("Net-SNMP takes no session for notifications");
  session_->flags |= SNMP_FLAGS_DONT_PROBE;  // which snmp_add has reset
}

bool NotificationSink::isReady() const {
  return !isInform_ || !user_ || session_->securityEngineIDLen > 0;
}

bool NotificationSink::send(snmp_pdu* message) {
  isBusy_ = isInform_;
  if (snmp_async_send(session_, message, isInform_ ? takeAnswer : nullptr, this) != 0) return true;
  snmp_free_pdu(message);
  if (isInform_) finish(false);
  return false;
}

// A request without a user and an engine, which the receiver answers with a report (RFC 3414, section 4).
void NotificationSink::discover() {
  snmp_pdu* probe = snmp_pdu_create(SNMP_MSG_GET);
  probe->version = SNMP_VERSION_3;
  probe->securityName = ::strdup("");
  probe->securityLevel = SNMP_SEC_LEVEL_NOAUTH;
  probe->securityModel = SNMP_SEC_MODEL_USM;
  discovers_ = true;
  send(probe);
}

void NotificationSink::read() {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(fd_, &ready);
  snmp_sess_read(snmp_sess_pointer(session_), &ready);
  settle();
}

void NotificationSink::checkTimeOuts() {
  snmp_sess_timeout(snmp_sess_pointer(session_));
  settle();
}

std::optional<bool> NotificationSink::takeResult() {
  return std::exchange(result_, std::nullopt);
}

// A report is no result yet: the library repeats the message if the clocks differed, and reports an error
// otherwise.
int NotificationSink::takeAnswer(int operation, snmp_session* /*session*/, int /*request*/, snmp_pdu* answer,
                                 void* self) {
  const bool isMessage = operation == NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE;
  if (isMessage && answer->command == SNMP_MSG_REPORT) return 1;
  static_cast<NotificationSink*>(self)->finish(isMessage && answer->errstat == SNMP_ERR_NOERROR);
  return 1;
}

void NotificationSink::finish(bool isAcknowledged) {
  isBusy_ = false;
  result_ = isAcknowledged;
}

// After the library has finished with a message: it has stored the engine that a report came from. A receiver
// that does not acknowledge may have another engine by now.
void NotificationSink::settle() {
  if (isBusy_ || !result_ || !user_) return;
  if (!std::exchange(discovers_, false)) {
    if (!*result_) forgetEngine();
    return;
  }
  if (!isReady()) return;
  result_.reset();
  if (usm_get_user(session_->securityEngineID, session_->securityEngineIDLen, user_->name.data()) != nullptr)
    return;
  std::string line = "-e " +
                     engineIdText({.id = {session_->securityEngineID,
                                          session_->securityEngineID + session_->securityEngineIDLen}}) +
                     ' ' + userLine(*user_);
  usm_parse_create_usmUser("createUser", line.data());
}

void NotificationSink::forgetEngine() {
  std::free(session_->securityEngineID);
  std::free(session_->contextEngineID);
  session_->securityEngineID = session_->contextEngineID = nullptr;
  session_->securityEngineIDLen = session_->contextEngineIDLen = 0;
}

}  // namespace headend
