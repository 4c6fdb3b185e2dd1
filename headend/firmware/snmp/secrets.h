// What the operator decides for SNMP: addresses, and users and communities for reading, writing and
// notifications. Those are in the environment or in a file that only its owner can read. docs/snmp.md
// describes the lines.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "base/address.h"
#include "protocol/mib_rows.h"

namespace headend {

struct SnmpSettings {
  std::optional<base::Address> listen;    // nullopt: closed
  std::optional<base::Address> trapSink;  // nullopt: no notifications
  bool inform = false;                    // whether notifications are acknowledged
  std::string secrets;                    // a file; empty: from the environment
  bool writeCommunity = false;            // whether it may set the cards
  // Ten components; the slot number follows them.
  std::vector<u32> base{protocol::kDefaultMibBase.begin(), protocol::kDefaultMibBase.end()};

  bool isUsed() const { return listen || trapSink; }
};

struct SnmpSecrets {
  struct User {
    std::string name;
    bool writes = false;
    std::string authProtocol;
    std::string authPassphrase;
    std::string privProtocol{};  // empty: messages are authenticated and not encrypted
    std::string privPassphrase{};

    bool hasPrivacy() const { return !privProtocol.empty(); }
  };

  std::string readCommunity;  // empty: none
  std::string writeCommunity;
  std::string trapCommunity;
  std::string trapUser;
  std::vector<User> users;

  const User* find(const std::string& name) const;
};

// Uses `file` if given, else the environment variable HEADEND_SNMP_SECRETS, else nothing. Throws
// std::runtime_error with the error and its position, but without any secret.
SnmpSecrets loadSnmpSecrets(const std::string& file);
SnmpSecrets parseSnmpSecrets(const std::string& text, const std::string& origin);

// A user as Net-SNMP's configuration names it after createUser.
std::string userLine(const SnmpSecrets::User& user);

// The access rights, as lines of Net-SNMP's configuration. The most that can be read: the system and SNMP
// groups, the engine's objects and counters, the cards and the chassis. Writers may set the cards' objects.
// Only the configured users and communities have access.
std::vector<std::string> accessConfiguration(const SnmpSecrets& secrets, const SnmpSettings& settings);

}  // namespace headend
