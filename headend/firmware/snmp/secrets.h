// Who may read and write over SNMP, and who the notifications come from: named by the operator, in a file
// that is nobody else's to read or in the environment. docs/snmp.md describes the lines.
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

// `file` when there is one, else what the environment variable HEADEND_SNMP_SECRETS holds, else nothing.
// Throws std::runtime_error, which says what is wrong where and shows no secret.
SnmpSecrets loadSnmpSecrets(const std::filesystem::path& file);
SnmpSecrets parseSnmpSecrets(const std::string& text, const std::string& origin);

}  // namespace headend
