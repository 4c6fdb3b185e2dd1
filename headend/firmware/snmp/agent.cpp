#include "headend/firmware/snmp/agent.h"

#include <stdexcept>

#include "headend/firmware/snmp/access.h"
#include "headend/firmware/snmp/net_snmp.h"
#include "protocol/mib_rows.h"

namespace headend {
namespace {

// Throws std::runtime_error if the secrets allow no access, or give no sender for notifications.
void demandAccess(const SnmpAgent::Settings& settings, const SnmpSecrets& secrets,
                  const std::function<void(const std::string&)>& say) {
  if (settings.communityWrites && secrets.writeCommunity.empty())
    throw std::runtime_error("--snmp-write-community: the secrets (--snmp-secrets) have no write-community");
  if (settings.listen && secrets.readCommunity.empty() && secrets.users.empty() &&
      !settings.communityWrites) {
    throw std::runtime_error(
        "--snmp: nobody may read: name a read-community or a user in a file for --snmp-secrets, or in the "
        "environment variable HEADEND_SNMP_SECRETS");
  }
  if (settings.trapSink && secrets.trapCommunity.empty() && secrets.trapUser.empty())
    throw std::runtime_error(
        "--snmp-trap: the secrets (--snmp-secrets) have no trap-community and no trap-user");
  if (settings.listen && !secrets.writeCommunity.empty() && !settings.communityWrites)
    say("the write-community is not used: --snmp-write-community is not given");
}

std::vector<std::string> configuration(const SnmpAgent::Settings& settings, const SnmpSecrets& secrets) {
  std::vector<std::string> lines = accessConfiguration(secrets, settings.communityWrites, settings.base);
  lines.emplace_back("sysdescr Virtual headend with QAM modulator cards");
  lines.push_back("sysobjectid " + protocol::mibBaseText(settings.base));
  lines.emplace_back("sysname headend");
  lines.emplace_back("syslocation not set");
  lines.emplace_back("syscontact not set");
  lines.emplace_back("sysservices 72");  // end-to-end and applications (RFC 3418)
  return lines;
}

}  // namespace

SnmpAgent::SnmpAgent(Kernel& kernel, Network& network, Flash& flash, const Settings& settings,
                     const SnmpSecrets& secrets, std::function<bool(int slot)> runs,
                     std::function<void(const std::string&)> say)
    : kernel_(kernel), network_(network), say_(std::move(say)), rows_(std::move(runs)) {
  demandAccess(settings, secrets, say_);
  engine_ = bootEngine(flash, say_);
  library_.emplace(flash.folder() / "snmp", engine_, configuration(settings, secrets), say_);
  if (settings.listen) library_->listen(*settings.listen);
  if (!settings.trapSink) return;
  library_->openSink(*settings.trapSink, secrets);
  notifier_.emplace(kernel_, *library_, settings.base, say_);
}

std::string SnmpAgent::address() const {
  return library_->fd() < 0 ? "" : hostAddress(library_->fd());
}

void SnmpAgent::start() {
  if (library_->fd() >= 0) kernel_.spawn("tSnmp", kPriority, [this] { serve(); });
  if (notifier_) notifier_->start();
}

void SnmpAgent::registerRows(const u32* base, int baseLength, const chassis::variable4* rows, int count,
                             int rowSize) {
  rows_.add(base, baseLength, rows, count, rowSize);
  kernel_.wakeFirst(waiters_);
}

void SnmpAgent::notify(const AlarmRecord& event) {
  if (notifier_) notifier_->notify(event);
}

// One request after the other: a card that is asked may let other tasks run meanwhile, and new rows wait.
void SnmpAgent::serve() {
  const auto listen = [this] {
    network_.watchOnce(library_->fd(), [this] {
      readable_ = true;
      kernel_.wakeFirst(waiters_);
    });
  };
  listen();
  for (;;) {
    while (!readable_ && !rows_.hasNew()) kernel_.waitOn(waiters_, os::WAIT_FOREVER);
    netsnmp_set_agent_uptime(static_cast<u_long>(kernel_.now() / (kSecond / 100)));
    if (!rows_.makeKnown()) say_("the SNMP agent does not take a card's rows");
    if (!readable_) continue;
    readable_ = false;
    readRequest();
    listen();
  }
}

void SnmpAgent::readRequest() {
  kernel_.charge("recvfrom", kernel_.settings().costs.kernelCall);
  library_->readRequest();
  kernel_.charge("sendto", kernel_.settings().costs.kernelCall);
}

}  // namespace headend
