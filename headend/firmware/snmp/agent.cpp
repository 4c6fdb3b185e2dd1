#include "headend/firmware/snmp/agent.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <span>

#include "headend/fail.h"
#include "headend/firmware/snmp/net_snmp.h"
#include "protocol/mib_rows.h"

namespace headend {
namespace {

// Throws std::runtime_error if the secrets allow no access, or give no sender for notifications.
void demandAccess(const SnmpSettings& settings, const SnmpSecrets& secrets, const Say& say) {
  if (settings.writeCommunity && secrets.writeCommunity.empty())
    fail("--snmp-write-community: the secrets (--snmp-secrets) have no write-community");
  if (settings.listen && secrets.readCommunity.empty() && secrets.users.empty() && !settings.writeCommunity) {
    fail(
        "--snmp: no manager may read: name a read-community or a user in a file for --snmp-secrets, or in "
        "the "
        "environment variable HEADEND_SNMP_SECRETS");
  }
  if (settings.trapSink && secrets.trapCommunity.empty() && secrets.trapUser.empty())
    fail("--snmp-trap: the secrets (--snmp-secrets) have no trap-community and no trap-user");
  if (settings.listen && !secrets.writeCommunity.empty() && !settings.writeCommunity)
    say("the write-community is not used: --snmp-write-community is not given");
}

std::vector<std::string> configuration(const SnmpSettings& settings, const SnmpSecrets& secrets) {
  std::vector<std::string> lines = accessConfiguration(secrets, settings);
  lines.push_back("sysobjectid " + protocol::mibBaseText(settings.base));
  for (const char* line :
       {"sysdescr Virtual headend with QAM modulator cards", "sysname headend", "syslocation not set",
        "syscontact not set", "sysservices 72"})  // 72: end-to-end and applications (RFC 3418)
    lines.emplace_back(line);
  return lines;
}

// ---- Notifications ----

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

// In hundredths of a second.
long uptime(const Kernel& kernel) {
  return static_cast<long>(kernel.now() / (kSecond / 100));
}

}  // namespace

SnmpAgent::SnmpAgent(Kernel& kernel, Network& network, Flash& flash, SnmpSettings settings,
                     std::function<bool(int slot)> runs, Say say)
    : kernel_(kernel),
      network_(network),
      settings_(std::move(settings)),
      say_(std::move(say)),
      rows_(std::move(runs)) {
  const SnmpSecrets secrets = loadSnmpSecrets(settings_.secrets);
  demandAccess(settings_, secrets, say_);
  library_.emplace(flash, configuration(settings_, secrets), say_);
  if (settings_.listen) library_->listen(*settings_.listen);
  if (settings_.trapSink) library_->openSink(*settings_.trapSink, secrets);
}

void SnmpAgent::start() {
  if (settings_.listen) kernel_.spawn("tSnmp", kPriority, [this] { serve(); });
  if (settings_.trapSink) kernel_.spawn("tSnmpTrap", kNotifierPriority, [this] { sendNotifications(); });
}

void SnmpAgent::registerRows(const u32* base, int baseLength, const chassis::variable4* rows, int count,
                             int rowSize) {
  rows_.add(base, baseLength, rows, count, rowSize);
  kernel_.wakeFirst(servers_);
}

void SnmpAgent::notify(const AlarmRecord& event) {
  if (!settings_.trapSink) return;
  if (waiting_.size() == kWaitingMost) waiting_.pop_front();
  waiting_.push_back(event);
  kernel_.wakeFirst(notifiers_);
}

// One request after the other: a card that is asked may let other tasks run meanwhile, and new rows wait.
void SnmpAgent::serve() {
  const Nanos call = kernel_.settings().costs.kernelCall;
  const auto listen = [this] {
    network_.watchOnce(library_->fd(), [this] {
      readable_ = true;
      kernel_.wakeFirst(servers_);
    });
  };
  listen();
  for (;;) {
    while (!readable_ && !rows_.hasNew()) kernel_.waitOn(servers_, os::WAIT_FOREVER);
    netsnmp_set_agent_uptime(static_cast<u_long>(uptime(kernel_)));
    if (!rows_.makeKnown()) say_("the SNMP agent does not take a card's rows");
    if (!readable_) continue;
    readable_ = false;
    kernel_.charge("recvfrom", call);
    library_->readRequest();
    kernel_.charge("sendto", call);
    listen();
  }
}

// A missing sink does no harm: notifications are not acknowledged.
void SnmpAgent::sendNotifications() {
  for (bool failed = false;;) {
    while (waiting_.empty()) kernel_.waitOn(notifiers_, os::WAIT_FOREVER);
    const AlarmRecord event = waiting_.front();
    waiting_.pop_front();
    netsnmp_pdu* notification = notificationOf(event, settings_.base, uptime(kernel_));
    kernel_.charge("sendto", kernel_.settings().costs.kernelCall);
    const bool sent = library_->send(notification);
    if (!sent && !failed)
      say_(fmt::format("an SNMP notification could not be sent: {}", std::strerror(errno)));
    failed = !sent;
  }
}

}  // namespace headend
