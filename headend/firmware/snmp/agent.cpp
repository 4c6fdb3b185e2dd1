#include "headend/firmware/snmp/agent.h"

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
        "the environment variable HEADEND_SNMP_SECRETS");
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
  if (settings.trapSink) lines.emplace_back("authtrapenable 1");
  return lines;
}

}  // namespace

SnmpAgent::SnmpAgent(Kernel& kernel, Network& network, Flash& flash, SnmpSettings settings,
                     CardRows::CardOf cardOf, const ChassisTables::Sources& chassis, Say say)
    : kernel_(kernel),
      network_(network),
      settings_(std::move(settings)),
      say_(std::move(say)),
      rows_(std::move(cardOf)),
      tables_(chassis) {
  const SnmpSecrets secrets = loadSnmpSecrets(settings_.secrets);
  demandAccess(settings_, secrets, say_);
  library_.emplace(flash, configuration(settings_, secrets), say_);
  if (settings_.listen) {
    library_->listen(*settings_.listen);
    if (!tables_.registerBelow(settings_.base)) fail("Net-SNMP does not take the tables of the chassis");
  }
  if (settings_.trapSink) notifier_.emplace(kernel, network, settings_, secrets, library_->engine(), say_);
}

void SnmpAgent::start() {
  if (settings_.listen) kernel_.spawn("tSnmp", kPriority, [this] { serve(); });
  if (notifier_) notifier_->start();
}

void SnmpAgent::registerRows(const u32* base, int baseLength, const chassis::variable4* rows, int count,
                             int rowSize) {
  rows_.add(base, baseLength, rows, count, rowSize);
  kernel_.wakeFirst(servers_);
}

void SnmpAgent::notify(const AlarmRecord& event) {
  if (notifier_) notifier_->alarm(event);
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
    netsnmp_set_agent_uptime(static_cast<u_long>(timeTicks(kernel_.now())));
    if (!rows_.makeKnown()) say_("the SNMP agent does not take a card's rows");
    if (!readable_) continue;
    readable_ = false;
    kernel_.charge("recvfrom", call);
    const u32 failures = SnmpLibrary::authenticationFailures();
    library_->readRequest();
    if (notifier_ && SnmpLibrary::authenticationFailures() != failures) notifier_->authenticationFailed();
    kernel_.charge("sendto", call);
    listen();
  }
}

}  // namespace headend
