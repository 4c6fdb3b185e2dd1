// SNMP users and communities for reading, writing and notifications. The operator gives them in the
// environment or in a file that only its owner can read. docs/snmp.md describes the lines.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace headend {

struct SnmpSecrets {
  struct User {
    std::string name;
    bool writes = false;
    std::string authProtocol;
    std::string authPassphrase;
    std::string privProtocol;  // empty: messages are authenticated and not encrypted
    std::string privPassphrase;

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
SnmpSecrets loadSnmpSecrets(const std::filesystem::path& file);
SnmpSecrets parseSnmpSecrets(const std::string& text, const std::string& origin);

}  // namespace headend
