#include "headend/firmware/snmp/notification.h"

#include <chrono>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "headend/firmware/snmp/net_snmp.h"
#include "protocol/mib_rows.h"

namespace headend {
namespace {

using ObjectName = std::vector<oid>;

const ObjectName kSysUpTime = {1, 3, 6, 1, 2, 1, 1, 3, 0};
const ObjectName kSnmpTrapOid = {1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0};
const ObjectName kSnmpTraps = {1, 3, 6, 1, 6, 3, 1, 1, 5};

class Message {
 public:
  Message(std::span<const u32> base, int command) : base_(base), pdu_(snmp_pdu_create(command)) {}

  void add(const ObjectName& name, u8 type, const void* value, std::size_t size) {
    snmp_pdu_add_variable(pdu_, name.data(), name.size(), type, value, size);
  }
  void number(u32 object, u8 type, long value) { add(nameOf(object), type, &value, sizeof value); }
  void text(u32 object, const std::string& value) {
    add(nameOf(object), ASN_OCTET_STR, value.data(), value.size());
  }
  ObjectName below(std::initializer_list<u32> suffix) const {
    ObjectName name(base_.begin(), base_.end());
    name.insert(name.end(), suffix.begin(), suffix.end());
    return name;
  }
  snmp_pdu* pdu() const { return pdu_; }

 private:
  ObjectName nameOf(u32 object) const { return below({protocol::kMibNotificationObjects, object, 0}); }

  std::span<const u32> base_;
  snmp_pdu* pdu_;
};

void addAlarm(Message& message, const AlarmRecord& event, bool isRaised) {
  using namespace protocol;  // NOLINT(google-build-using-namespace)
  const Alarm alarm = outward(event).alarm;
  message.number(kMibAlarmSlot, ASN_INTEGER, alarm.slot + 1);
  message.number(kMibAlarmPort, ASN_INTEGER, alarm.channel);
  message.number(kMibAlarmType, ASN_UNSIGNED, alarm.type);
  message.text(kMibAlarmEnglish, alarm.enTrap);
  message.text(kMibAlarmChinese, alarm.zhTrap);
  message.number(kMibAlarmNumber, ASN_UNSIGNED, static_cast<u32>(isRaised ? event.number : event.ends));
  message.text(kMibAlarmTime, dateAndTime(event.at));
  message.number(kMibAlarmSeverity, ASN_INTEGER, static_cast<long>(severityOf(alarm.type)));
  message.number(kMibAlarmState, ASN_INTEGER, isRaised ? 1 : 2);
  message.text(kMibAlarmEnglishTitle, alarm.enTitle);
  message.text(kMibAlarmEnglishContent, alarm.enText);
  message.text(kMibAlarmChineseTitle, alarm.zhTitle);
  message.text(kMibAlarmChineseContent, alarm.zhText);
}

}  // namespace

snmp_pdu* messageOf(const Notification& notification, std::span<const u32> base, bool isInform) {
  Message message(base, isInform ? SNMP_MSG_INFORM : SNMP_MSG_TRAP2);
  const std::optional<AlarmRecord>& event = notification.alarm;
  const bool isRaised = event && event->kind == protocol::AlarmEvent::Kind::kRaised;
  ObjectName kind = kSnmpTraps;
  if (event) {
    kind = message.below(
        {protocol::kMibNotifications, isRaised ? protocol::kMibAlarmRaised : protocol::kMibAlarmCleared});
  } else {
    kind.push_back(static_cast<oid>(notification.standard));
  }
  const long uptime = timeTicks(notification.at);
  message.add(kSysUpTime, ASN_TIMETICKS, &uptime, sizeof uptime);
  message.add(kSnmpTrapOid, ASN_OBJECT_ID, kind.data(), kind.size() * sizeof(oid));
  if (event) addAlarm(message, *event, isRaised);
  return message.pdu();
}

std::string dateAndTime(u32 at) {
  using namespace std::chrono;  // NOLINT(google-build-using-namespace)
  const sys_seconds time{seconds(at)};
  const auto day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  const auto year = static_cast<unsigned>(static_cast<int>(date.year()));
  std::string text;
  for (const unsigned long octet :
       {static_cast<unsigned long>(year >> 8U), static_cast<unsigned long>(year & 0xFFU),
        static_cast<unsigned long>(static_cast<unsigned>(date.month())),
        static_cast<unsigned long>(static_cast<unsigned>(date.day())),
        static_cast<unsigned long>(clock.hours().count()),
        static_cast<unsigned long>(clock.minutes().count()),
        static_cast<unsigned long>(clock.seconds().count()), 0UL})
    text.push_back(static_cast<char>(octet));
  text += '+';
  text.append(2, '\0');  // hours and minutes from UTC
  return text;
}

}  // namespace headend
