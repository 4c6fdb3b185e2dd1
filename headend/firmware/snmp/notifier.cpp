#include "headend/firmware/snmp/notifier.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include "headend/firmware/alarm_list.h"
#include "headend/firmware/snmp/net_snmp.h"
#include "protocol/mib_rows.h"

namespace headend {
namespace {

using Name = std::vector<oid>;

const Name kSysUpTime = {1, 3, 6, 1, 2, 1, 1, 3, 0};
const Name kSnmpTrapOid = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};

// A notification while it is put together (RFC 3416, section 4.2.6).
class Notification {
 public:
  explicit Notification(std::span<const u32> base) : base_(base.begin(), base.end()) {}

  void uptime(long hundredths) { add(kSysUpTime, ASN_TIMETICKS, &hundredths, sizeof hundredths); }
  void kind(u32 which) {
    const Name name = below({protocol::kMibNotifications, which});
    add(kSnmpTrapOid, ASN_OBJECT_ID, name.data(), name.size() * sizeof(oid));
  }
  void number(u32 object, u8 type, long value) { add(instance(object), type, &value, sizeof value); }
  void text(u32 object, const std::string& value) {
    add(instance(object), ASN_OCTET_STR, value.data(), value.size());
  }
  netsnmp_pdu* release() { return std::exchange(pdu_, nullptr); }

 private:
  Name below(std::initializer_list<u32> suffix) const {
    Name name = base_;
    name.insert(name.end(), suffix.begin(), suffix.end());
    return name;
  }
  Name instance(u32 object) const { return below({protocol::kMibNotificationObjects, object, 0}); }
  void add(const Name& name, u8 type, const void* value, std::size_t size) {
    snmp_pdu_add_variable(pdu_, name.data(), name.size(), type, value, size);
  }

  Name base_;
  netsnmp_pdu* pdu_ = snmp_pdu_create(SNMP_MSG_TRAP2);
};

}  // namespace

SnmpNotifier::SnmpNotifier(Kernel& kernel, SnmpLibrary& library, std::vector<u32> base,
                           std::function<void(const std::string&)> say)
    : kernel_(kernel), library_(library), base_(std::move(base)), say_(std::move(say)) {}

void SnmpNotifier::start() {
  kernel_.spawn("tSnmpTrap", kPriority, [this] { serve(); });
}

void SnmpNotifier::notify(const AlarmRecord& event) {
  if (waiting_.size() == kWaitingMost) waiting_.pop_front();
  waiting_.push_back(event);
  kernel_.wakeFirst(waiters_);
}

void SnmpNotifier::serve() {
  for (;;) {
    while (waiting_.empty()) kernel_.waitOn(waiters_, os::WAIT_FOREVER);
    const AlarmRecord event = waiting_.front();
    waiting_.pop_front();
    send(event);
  }
}

void SnmpNotifier::send(const AlarmRecord& event) {
  const protocol::Alarm alarm = outward(event).alarm;
  const bool raised = event.kind == protocol::AlarmEvent::Kind::kRaised;
  Notification notification(base_);
  notification.uptime(static_cast<long>(kernel_.now() / (kSecond / 100)));
  notification.kind(raised ? protocol::kMibAlarmRaised : protocol::kMibAlarmCleared);
  notification.number(protocol::kMibAlarmSlot, ASN_INTEGER, alarm.slot + 1);
  notification.number(protocol::kMibAlarmPort, ASN_INTEGER, alarm.port + 1);
  notification.number(protocol::kMibAlarmType, ASN_UNSIGNED, alarm.type);
  notification.text(protocol::kMibAlarmEnglish, alarm.enTrap);
  notification.text(protocol::kMibAlarmChinese, alarm.zhTrap);

  kernel_.charge("sendto", kernel_.settings().costs.kernelCall);
  const bool sent = library_.send(notification.release());
  if (!sent && !failed_)
    say_(fmt::format("an SNMP notification could not be sent: {}", std::strerror(errno)));
  failed_ = !sent;
}

}  // namespace headend
