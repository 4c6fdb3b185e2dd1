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

// The notification of an event (RFC 3416, section 4.2.6). `uptime` is in hundredths of a second.
netsnmp_pdu* notificationOf(const AlarmRecord& event, std::span<const u32> base, long uptime) {
  netsnmp_pdu* pdu = snmp_pdu_create(SNMP_MSG_TRAP2);
  const auto below = [&](std::initializer_list<u32> suffix) {
    Name name(base.begin(), base.end());
    name.insert(name.end(), suffix.begin(), suffix.end());
    return name;
  };
  const auto add = [&](const Name& name, u8 type, const void* value, std::size_t size) {
    snmp_pdu_add_variable(pdu, name.data(), name.size(), type, value, size);
  };
  const auto number = [&](u32 object, u8 type, long value) {
    add(below({protocol::kMibNotificationObjects, object, 0}), type, &value, sizeof value);
  };
  const auto text = [&](u32 object, const std::string& value) {
    add(below({protocol::kMibNotificationObjects, object, 0}), ASN_OCTET_STR, value.data(), value.size());
  };
  const bool raised = event.kind == protocol::AlarmEvent::Kind::kRaised;
  const Name kind =
      below({protocol::kMibNotifications, raised ? protocol::kMibAlarmRaised : protocol::kMibAlarmCleared});
  const protocol::Alarm alarm = outward(event).alarm;
  add(kSysUpTime, ASN_TIMETICKS, &uptime, sizeof uptime);
  add(kSnmpTrapOid, ASN_OBJECT_ID, kind.data(), kind.size() * sizeof(oid));
  number(protocol::kMibAlarmSlot, ASN_INTEGER, alarm.slot + 1);
  number(protocol::kMibAlarmPort, ASN_INTEGER, alarm.port + 1);
  number(protocol::kMibAlarmType, ASN_UNSIGNED, alarm.type);
  text(protocol::kMibAlarmEnglish, alarm.enTrap);
  text(protocol::kMibAlarmChinese, alarm.zhTrap);
  return pdu;
}

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
  netsnmp_pdu* notification =
      notificationOf(event, base_, static_cast<long>(kernel_.now() / (kSecond / 100)));
  kernel_.charge("sendto", kernel_.settings().costs.kernelCall);
  const bool sent = library_.send(notification);
  if (!sent && !failed_)
    say_(fmt::format("an SNMP notification could not be sent: {}", std::strerror(errno)));
  failed_ = !sent;
}

}  // namespace headend
