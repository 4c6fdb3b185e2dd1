#include "headend/firmware/snmp/library.h"

#include <arpa/inet.h>
#include <fmt/ranges.h>
#include <openssl/crypto.h>
#include <sys/select.h>
#include <syslog.h>

#include <bit>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <limits>
#include <optional>
#include <random>
#include <string_view>
#include <system_error>
#include <utility>

#include "base/bytes.h"
#include "base/numbers.h"
#include "headend/fail.h"
#include "headend/firmware/snmp/ber.h"
#include "headend/firmware/snmp/net_snmp.h"

namespace headend {
namespace {

// ---- The engine ----

constexpr const char* kFile = "/tffs0/snmp/engine.txt";
constexpr u32 kMostBoots = 0x7FFFFFFF - 1;  // after the last one an engine must take a new ID
constexpr std::size_t kIdSize = 13;

// RFC 3411, SnmpEngineID: an enterprise's number with the highest bit set, 5 for octets of its own choice.
EngineIdentity newEngine() {
  EngineIdentity engine{.id = {0x80, 0x00, 0x1F, 0x88, 5}, .boots = 1};
  std::random_device random;
  while (engine.id.size() < kIdSize) engine.id.push_back(static_cast<u8>(random()));
  return engine;
}

std::string encode(const EngineIdentity& engine) {
  return fmt::format("engine {} boots {}\n", engineIdText(engine), engine.boots);
}

std::optional<EngineIdentity> decode(std::string_view text) {
  constexpr std::size_t kIdAt = sizeof "engine 0x" - 1;
  EngineIdentity engine{.id = {}, .boots = 0};
  for (std::size_t at = kIdAt; engine.id.size() < kIdSize && at < text.size(); at += 2)
    engine.id.push_back(base::parseDigits<u8>(text.substr(at, 2), 16, 0xFF).value_or(0));
  const std::string_view boots = text.substr(text.rfind(' ') + 1);
  engine.boots = base::parseDecimal(boots.substr(0, boots.find('\n')), kMostBoots).value_or(0);
  return engine.boots > 0 && encode(engine) == text ? std::optional(engine) : std::nullopt;
}

// nullopt if the flash has none; empty if it cannot be read.
std::optional<std::string> savedText(const Flash& flash) try {
  return flash.read(kFile, 100);
} catch (const std::system_error&) {
  return "";
}

// ---- The library ----

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

// Replaces the library's check of a packet before it is parsed, which reads files of the host about the
// sender.
int countPacket(netsnmp_session* /*session*/, netsnmp_transport* /*transport*/, void* /*sender*/,
                int /*size*/) {
  snmp_increment_statistic(STAT_SNMPINPKTS);
  return 1;
}

}  // namespace

netsnmp_transport* openTransport(const base::Address& address, bool listens, const char* purpose) {
  const auto failed = [&](const char* why) {
    fail("cannot {} {}:{}: {}", purpose, address.host, address.port, why);
  };
  std::vector<base::SocketAddress> addresses;
  try {
    addresses = base::resolve(address);
  } catch (const std::runtime_error& e) {
    failed(e.what());
  }
  netsnmp_transport* transport = nullptr;
  for (const base::SocketAddress& one : addresses) {
    netsnmp_ep end{};
    std::memcpy(&end.a, one.bytes.data(), one.size);
    errno = 0;
    transport = one.isV6() ? netsnmp_udp6_transport(&end, listens ? 1 : 0)
                           : netsnmp_udp_transport(&end, listens ? 1 : 0);
    if (transport != nullptr) return transport;
  }
  failed(std::strerror(errno));
  return transport;
}

std::string engineIdText(const EngineIdentity& engine) {
  return fmt::format("0x{:02x}", fmt::join(engine.id, ""));
}

EngineIdentity bootEngine(Flash& flash, const Say& say) {
  EngineIdentity engine = newEngine();
  if (const auto text = savedText(flash)) {
    if (const auto last = decode(*text); !last) {
      say("the SNMP engine's ID in the flash is damaged: this is a new engine, whose keys users must learn "
          "anew");
    } else if (last->boots < kMostBoots) {
      engine = {last->id, last->boots + 1};
    } else {
      say("the SNMP engine has used up its boots: this is a new engine, whose keys users must learn anew");
    }
  }
  const std::string content = encode(engine);
  const std::string error = flash.replace(kFile, base::Bytes(content.begin(), content.end()));
  if (!error.empty()) fail("{}", error);
  return engine;
}

// ---- The library ----

SnmpLibrary::SnmpLibrary(Flash& flash, const std::vector<std::string>& configuration, Say say)
    : engine_(bootEngine(flash, say)), say_(std::move(say)) {
  const std::filesystem::path whole =
      std::filesystem::absolute(flash.folder() / "snmp");  // it needs a full path
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
  if (!complaints_.empty()) fail("the SNMP agent does not start:{}", complaints_);
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

void SnmpLibrary::listen(const base::Address& address) {
  netsnmp_transport* transport = openTransport(address, true, "listen for SNMP on");
  fd_ = transport->sock;
  netsnmp_session session{};
  snmp_sess_init(&session);
  session.version = SNMP_DEFAULT_VERSION;
  session.callback = handle_snmp_packet;
  session.isAuthoritative = SNMP_SESS_AUTHORITATIVE;
  netsnmp_session* added = snmp_add(&session, transport, countPacket, netsnmp_agent_check_parse);
  if (added == nullptr) fail("Net-SNMP takes no session for requests");
  requests_ = snmp_sess_pointer(added);
}

void SnmpLibrary::readRequest() {
  fd_set ready;
  FD_ZERO(&ready);
  FD_SET(fd_, &ready);
  snmp_sess_read(requests_, &ready);
  netsnmp_check_outstanding_agent_requests();
}

u32 SnmpLibrary::authenticationFailures() {
  u32 all = 0;
  for (const int counter : {STAT_SNMPINBADCOMMUNITYNAMES, STAT_USMSTATSUNKNOWNUSERNAMES,
                            STAT_USMSTATSWRONGDIGESTS, STAT_USMSTATSDECRYPTIONERRORS})
    all += snmp_get_statistic(counter);
  return all;
}

}  // namespace headend

// In place of the library's own (X.690, 8.3), which cuts a number of more than 32 bits to its lowest 32: a
// SET of 2^32 + 474000 would tune a card to 474000 kHz. The library calls this one, because a program's
// symbol comes before a shared library's. Such a number is malformed in a message's header. As the value of
// an object it becomes the highest or lowest number of a `long`, which no object takes: the library parses
// values after it has checked their size, and passes SNMP_MAX_PACKET_LEN in place of the remaining bytes.
extern "C" u_char* asn_parse_int(u_char* data, std::size_t* datalength, u_char* type, long* number,
                                 std::size_t /*size*/) {
  if (*datalength == 0) return nullptr;
  *type = data[0];
  if (*type != ASN_INTEGER) return nullptr;
  const auto content = headend::berContent({data + 1, *datalength - 1});
  if (!content || content->empty()) return nullptr;
  if (content->size() <= headend::kMostIntegerOctets) {
    *number = headend::berInteger(*content);
  } else if (*datalength == SNMP_MAX_PACKET_LEN) {
    const bool isNegative = (content->front() & 0x80U) != 0;
    *number = isNegative ? std::numeric_limits<long>::min() : std::numeric_limits<long>::max();
  } else {
    return nullptr;
  }
  u_char* end = content->data() + content->size();
  *datalength -= static_cast<std::size_t>(end - data);
  return end;
}
