#include "headend/firmware/snmp/library.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <openssl/crypto.h>
#include <sys/select.h>
#include <syslog.h>

#include <bit>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "headend/firmware/snmp/net_snmp.h"

namespace headend {
namespace {

constexpr const char* kName = "headend";  // our application name in the library

// Parts of Net-SNMP's agent: the system group and the engine's own, nothing of the host's.
constexpr const char* kModules =
    "system_mib,sysORTable,snmp_mib,setSerialNo,snmpEngine,snmpMPDStats,usmStats,usmConf,vacm_conf";

// The library always reads its configuration folders; this makes our folder the only one.
void useNoFilesBut(const std::filesystem::path& folder) {
  OPENSSL_init_crypto(OPENSSL_INIT_NO_LOAD_CONFIG, nullptr);
  set_configuration_directory(folder.c_str());
  set_persistent_directory(folder.c_str());
  for (const int setting : {NETSNMP_DS_LIB_DONT_READ_CONFIGS, NETSNMP_DS_LIB_DONT_PERSIST_STATE,
                            NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE}) {
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, setting, 1);
  }
  ::setenv("MIBS", "", 1);  // an agent needs no names
  ::setenv("MIBDIRS", (folder / "mibs").c_str(), 1);
  ::unsetenv("MIBFILES");
}

netsnmp_transport* openTransport(const SnmpLibrary::Address& address, bool listens, const char* purpose) {
  const auto failed = [&](const char* why) {
    return std::runtime_error(fmt::format("cannot {} {}:{}: {}", purpose, address.host, address.port, why));
  };
  netsnmp_ep end{};
  end.a.sin.sin_family = AF_INET;
  end.a.sin.sin_port = htons(address.port);
  if (inet_pton(AF_INET, address.host.c_str(), &end.a.sin.sin_addr) != 1) throw failed("not an IPv4 address");
  errno = 0;
  netsnmp_transport* transport = netsnmp_udp_transport(&end, listens ? 1 : 0);
  if (transport == nullptr) throw failed(std::strerror(errno));
  return transport;
}

// Replaces the library's check of a packet before it is parsed, which reads files of the host about the
// sender.
int countPacket(netsnmp_session* /*session*/, netsnmp_transport* /*transport*/, void* /*sender*/,
                int /*size*/) {
  snmp_increment_statistic(STAT_SNMPINPKTS);
  return 1;
}

}  // namespace

SnmpLibrary::SnmpLibrary(const std::filesystem::path& folder, EngineIdentity engine,
                         const std::vector<std::string>& configuration,
                         std::function<void(const std::string&)> say)
    : engine_(std::move(engine)), say_(std::move(say)) {
  const std::filesystem::path whole = std::filesystem::absolute(folder);  // the library needs a full path
  useNoFilesBut(whole);
  snmp_disable_log();
  snmp_enable_calllog();
  snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, take, this);

  std::string modules = kModules;
  add_to_init_list(modules.data());
  init_agent(kName);
  init_mib_modules();
  const std::string id = engineIdText(engine_);
  std::vector<std::string> lines = {
      "exactEngineID " + id, "oldEngineID " + id,
      fmt::format("engineBoots {}", engine_.boots - 1)};  // the library adds one
  lines.insert(lines.end(), configuration.begin(), configuration.end());
  for (std::string& line : lines) netsnmp_config_remember(line.data());
  init_snmp(kName);
  std::setlocale(LC_CTYPE, "C");  // the library has changed it

  std::error_code ignored;
  std::filesystem::remove(whole / "cert_indexes", ignored);  // empty: the library creates it without need
  if (!complaints_.empty()) throw std::runtime_error("the SNMP agent does not start:" + complaints_);
  isStarted_ = true;
}

int SnmpLibrary::take(int /*major*/, int /*minor*/, void* message, void* self) {
  const auto& entry = *static_cast<snmp_log_message*>(message);
  SnmpLibrary& library = *static_cast<SnmpLibrary*>(self);
  std::string text = entry.msg;
  while (!text.empty() && text.back() == '\n') text.pop_back();
  if (library.isStarted_) {
    library.say(text);
  } else if (entry.priority <= LOG_WARNING) {
    library.complaints_ += "\n  " + text;
  }
  return 0;
}

// Any sender can cause a message with each packet. A repeated message is printed the first, second, fourth,
// eighth ... time.
void SnmpLibrary::say(const std::string& text) {
  timesSaid_ = text == lastSaid_ ? timesSaid_ + 1 : 1;
  lastSaid_ = text;
  if (!std::has_single_bit(timesSaid_)) return;
  say_("SNMP: " + text + (timesSaid_ > 1 ? fmt::format(" ({} times)", timesSaid_) : ""));
}

void SnmpLibrary::listen(const Address& address) {
  netsnmp_transport* transport = openTransport(address, true, "listen for SNMP on");
  fd_ = transport->sock;
  netsnmp_session session{};
  snmp_sess_init(&session);
  session.version = SNMP_DEFAULT_VERSION;
  session.callback = handle_snmp_packet;
  session.isAuthoritative = SNMP_SESS_AUTHORITATIVE;
  netsnmp_session* added = snmp_add(&session, transport, countPacket, netsnmp_agent_check_parse);
  if (added == nullptr) throw std::runtime_error("Net-SNMP takes no session for requests");
  requests_ = snmp_sess_pointer(added);
}

void SnmpLibrary::openSink(const Address& address, const SnmpSecrets& secrets) {
  netsnmp_session session{};
  snmp_sess_init(&session);
  std::string name = secrets.trapUser;
  std::string community = secrets.trapCommunity;
  if (const SnmpSecrets::User* user = secrets.find(name)) {
    session.version = SNMP_VERSION_3;
    session.securityName = name.data();
    session.securityNameLen = name.size();
    session.securityLevel = user->hasPrivacy() ? SNMP_SEC_LEVEL_AUTHPRIV : SNMP_SEC_LEVEL_AUTHNOPRIV;
    session.securityEngineID = engine_.id.data();  // the sender of notifications is the authority
    session.securityEngineIDLen = engine_.id.size();
    session.contextEngineID = engine_.id.data();
    session.contextEngineIDLen = engine_.id.size();
  } else {
    session.version = SNMP_VERSION_2c;
    session.community = reinterpret_cast<u8*>(community.data());
    session.community_len = community.size();
  }
  netsnmp_transport* transport = openTransport(address, false, "send SNMP notifications to");
  sink_ = snmp_add(&session, transport, nullptr, nullptr);
  if (sink_ == nullptr) throw std::runtime_error("Net-SNMP takes no session for notifications");
}

void SnmpLibrary::readRequest() {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(fd_, &ready);
  snmp_sess_read(requests_, &ready);
  netsnmp_check_outstanding_agent_requests();
}

bool SnmpLibrary::send(snmp_pdu* notification) {
  if (snmp_send(sink_, notification) != 0) return true;
  snmp_free_pdu(notification);
  return false;
}

}  // namespace headend
