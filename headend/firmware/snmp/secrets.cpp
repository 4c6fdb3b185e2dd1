#include "headend/firmware/snmp/secrets.h"

#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <iomanip>
#include <sstream>
#include <system_error>

#include "base/files.h"
#include "headend/fail.h"

namespace headend {
namespace {

constexpr const char* kVariable = "HEADEND_SNMP_SECRETS";
constexpr std::size_t kLongestFile = 1 << 20;
constexpr std::size_t kLongestName = 32;  // RFC 3414, usmUserName
constexpr std::size_t kLongestCommunity = 64;
constexpr std::size_t kShortestPassphrase = 8;  // RFC 3414, section 11.2
constexpr std::array kAuthProtocols = {"SHA", "SHA-224", "SHA-256", "SHA-384", "SHA-512"};
constexpr std::array kPrivProtocols = {"AES", "AES-192", "AES-256"};

using Words = std::vector<std::string>;

// Words between blanks; "..." makes one of several, and \ takes the next character as it is.
Words wordsOf(const std::string& line) {
  std::istringstream stream(line);
  Words words;
  for (std::string word; stream >> std::quoted(word);) words.push_back(word);
  return words;
}

bool isPrintable(const std::string& text, std::size_t least, std::size_t most) {
  return text.size() >= least && text.size() <= most &&
         std::ranges::all_of(text, [](unsigned char c) { return c >= 0x20 && c < 0x7F; });
}

class Parser {
 public:
  explicit Parser(std::string origin) : origin_(std::move(origin)) {}

  void line(const std::string& text) {
    ++number_;
    const Words words = wordsOf(text);
    if (words.empty() || words[0].starts_with('#')) return;
    constexpr auto kOneWord = "one word of at most 64 characters of ASCII, in \"\" where it has blanks";
    if (words[0] == "user") {
      user(words);
    } else if (words[0] == "trap-user") {
      single(words, secrets_.trapUser, "the name of a user");
    } else if (words[0] == "read-community") {
      single(words, secrets_.readCommunity, kOneWord);
    } else if (words[0] == "write-community") {
      single(words, secrets_.writeCommunity, kOneWord);
    } else if (words[0] == "trap-community") {
      single(words, secrets_.trapCommunity, kOneWord);
    } else {
      demand(false,
             "want read-community, write-community, user, trap-community or trap-user, or # for a comment");
    }
  }

  SnmpSecrets finish() {
    if (!secrets_.readCommunity.empty() && secrets_.readCommunity == secrets_.writeCommunity)
      fail("{}: read-community and write-community are the same: they must differ", origin_);
    if (!secrets_.trapUser.empty() && secrets_.find(secrets_.trapUser) == nullptr)
      fail("{}: trap-user is the name of no user line", origin_);
    if (!secrets_.trapCommunity.empty() && !secrets_.trapUser.empty())
      fail("{}: both trap-community and trap-user: want one of them", origin_);
    return std::move(secrets_);
  }

 private:
  void demand(bool holds, const std::string& otherwise) const {
    if (!holds) fail("{}, line {}: {}", origin_, number_, otherwise);
  }

  void single(const Words& words, std::string& into, const char* want) const {
    demand(words.size() == 2 && isPrintable(words[1], 1, kLongestCommunity),
           fmt::format("{} needs {}", words[0], want));
    demand(into.empty(), words[0] + " is there twice");
    into = words[1];
  }

  template <typename List>
  void demandOneOf(const List& list, const std::string& word, const char* what) const {
    demand(std::ranges::find(list, word) != list.end(),
           fmt::format("the {} protocol is one of {}", what, fmt::join(list, ", ")));
  }
  void demandPassphrase(const std::string& text) const {
    demand(isPrintable(text, kShortestPassphrase, kLongestFile),
           "a passphrase has eight characters or more, of ASCII");
  }

  void user(const Words& words) {
    demand(words.size() == 5 || words.size() == 7,
           "want user NAME read|write AUTH-PROTOCOL PASSPHRASE [PRIVACY-PROTOCOL PASSPHRASE]; what has "
           "blanks goes in \"\"");
    SnmpSecrets::User user{words[1], words[2] == "write", words[3], words[4]};
    demandOneOf(kAuthProtocols, user.authProtocol, "authentication");
    demandPassphrase(user.authPassphrase);
    if (words.size() == 7) {
      user.privProtocol = words[5];
      user.privPassphrase = words[6];
      demandOneOf(kPrivProtocols, user.privProtocol, "privacy");
      demandPassphrase(user.privPassphrase);
    }
    demand(isPrintable(user.name, 1, kLongestName), "a user's name has 1 to 32 characters of ASCII");
    demand(secrets_.find(user.name) == nullptr, "a user of that name is there already");
    demand(user.writes || words[2] == "read", "after the user's name comes read or write");
    demand(!user.writes || user.hasPrivacy(), "a user who writes needs a privacy protocol too");
    secrets_.users.push_back(std::move(user));
  }

  std::string origin_;
  int number_ = 0;
  SnmpSecrets secrets_;
};

std::string contentOf(const std::string& file) try {
  using std::filesystem::perms;
  std::string content = base::readFile(file, kLongestFile);
  const perms mode = std::filesystem::status(file).permissions();
  if ((mode & (perms::group_all | perms::others_all)) != perms::none) {
    fail("SNMP secrets {0} are not its owner's alone (mode {1:04o}): chmod 600 {0}", file,
         static_cast<unsigned>(mode));
  }
  return content;
} catch (const std::system_error& e) {
  fail("cannot read SNMP secrets {}: {}", file, e.code().message());
}

// ---- Access ----

constexpr const char* kSeen[] = {
    "1.3.6.1.2.1.1",       // SNMPv2-MIB, system
    "1.3.6.1.2.1.11",      // SNMPv2-MIB, snmp
    "1.3.6.1.6.3.1",       // SNMPv2-MIB, set and notification groups
    "1.3.6.1.6.3.10.2",    // SNMP-FRAMEWORK-MIB, engine
    "1.3.6.1.6.3.11.2",    // SNMP-MPD-MIB, counters
    "1.3.6.1.6.3.15.1.1",  // SNMP-USER-BASED-SM-MIB, counters
};

std::string quoted(const std::string& word) {
  std::ostringstream text;
  text << std::quoted(word);
  return text.str();
}

// Access of a group by one security model, from a level on.
std::string access(const std::string& group, const char* model, const char* level, bool writes) {
  return fmt::format(R"(access {} "" {} {} exact seen {} none)", group, model, level,
                     writes ? "set" : "none");
}

}  // namespace

const SnmpSecrets::User* SnmpSecrets::find(const std::string& name) const {
  const auto found = std::ranges::find(users, name, &User::name);
  return found == users.end() ? nullptr : &*found;
}

SnmpSecrets parseSnmpSecrets(const std::string& text, const std::string& origin) {
  Parser parser(origin);
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) parser.line(line);
  return parser.finish();
}

SnmpSecrets loadSnmpSecrets(const std::string& file) {
  if (!file.empty()) return parseSnmpSecrets(contentOf(file), file);
  const char* text = std::getenv(kVariable);
  return text == nullptr ? SnmpSecrets{} : parseSnmpSecrets(text, kVariable);
}

std::string userLine(const SnmpSecrets::User& user) {
  return fmt::format(
      "{} {} {}{}", quoted(user.name), user.authProtocol, quoted(user.authPassphrase),
      user.hasPrivacy() ? fmt::format(" {} {}", user.privProtocol, quoted(user.privPassphrase)) : "");
}

std::vector<std::string> accessConfiguration(const SnmpSecrets& secrets, const SnmpSettings& settings) {
  const std::string cards = protocol::mibBaseText(settings.base);
  // A group without members: the library requires an access line, even without any user.
  std::vector<std::string> lines = {access("nobody", "usm", "priv", false),
                                    fmt::format("view seen included {}", cards),
                                    fmt::format("view set included {}", cards), "view none excluded 1"};
  for (const char* subtree : kSeen) lines.push_back(fmt::format("view seen included {}", subtree));

  const auto community = [&](const std::string& name, const std::string& secret, bool writes) {
    if (secret.empty()) return;
    for (const char* family : {"com2sec", "com2sec6"})
      lines.push_back(fmt::format("{} {} default {}", family, name, quoted(secret)));
    lines.push_back(fmt::format("group {0} v2c {0}", name));
    lines.push_back(access(name, "v2c", "noauth", writes));
  };
  community("readers", secrets.readCommunity, false);
  if (settings.writeCommunity) community("writers", secrets.writeCommunity, true);

  int number = 0;
  for (const SnmpSecrets::User& user : secrets.users) {
    const std::string group = fmt::format("user{}", ++number);
    lines.push_back("createUser " + userLine(user));
    lines.push_back(fmt::format("group {} usm {}", group, quoted(user.name)));
    lines.push_back(access(group, "usm", user.hasPrivacy() ? "priv" : "auth", user.writes));
  }
  return lines;
}

}  // namespace headend
