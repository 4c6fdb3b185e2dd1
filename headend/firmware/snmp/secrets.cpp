#include "headend/firmware/snmp/secrets.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iomanip>
#include <map>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include "base/files.h"

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

bool isPrintable(const std::string& text) {
  return std::ranges::all_of(text, [](unsigned char c) { return c >= 0x20 && c < 0x7F; });
}

template <typename List>
bool isOneOf(const List& list, const std::string& word) {
  return std::ranges::find(list, word) != list.end();
}

class Parser {
 public:
  explicit Parser(std::string origin) : origin_(std::move(origin)) {}

  void line(const std::string& text) {
    ++number_;
    const Words words = wordsOf(text);
    if (words.empty() || words[0].starts_with('#')) return;
    if (words[0] == "user") {
      user(words);
    } else if (words[0] == "trap-user") {
      single(words, secrets_.trapUser, "the name of a user");
    } else {
      const std::map<std::string, std::string*> communities = {{"read-community", &secrets_.readCommunity},
                                                               {"write-community", &secrets_.writeCommunity},
                                                               {"trap-community", &secrets_.trapCommunity}};
      const auto found = communities.find(words[0]);
      demand(found != communities.end(),
             "want read-community, write-community, user, trap-community or trap-user, or # for a comment");
      single(words, *found->second,
             "one word of at most 64 characters of ASCII, in \"\" where it has blanks");
    }
  }

  SnmpSecrets finish() {
    if (!secrets_.readCommunity.empty() && secrets_.readCommunity == secrets_.writeCommunity)
      throw std::runtime_error(origin_ +
                               ": read-community and write-community are the same: they must differ");
    if (!secrets_.trapUser.empty() && secrets_.find(secrets_.trapUser) == nullptr)
      throw std::runtime_error(origin_ + ": trap-user is the name of no user line");
    if (!secrets_.trapCommunity.empty() && !secrets_.trapUser.empty())
      throw std::runtime_error(origin_ + ": both trap-community and trap-user: want one of them");
    return std::move(secrets_);
  }

 private:
  void demand(bool holds, const std::string& otherwise) const {
    if (!holds) throw std::runtime_error(fmt::format("{}, line {}: {}", origin_, number_, otherwise));
  }

  void single(const Words& words, std::string& into, const char* want) const {
    demand(words.size() == 2 && !words[1].empty() && words[1].size() <= kLongestCommunity &&
               isPrintable(words[1]),
           fmt::format("{} wants {}", words[0], want));
    demand(into.empty(), words[0] + " is there twice");
    into = words[1];
  }

  void user(const Words& words) {
    demand(words.size() == 5 || words.size() == 7,
           "want user NAME read|write AUTH-PROTOCOL PASSPHRASE [PRIVACY-PROTOCOL PASSPHRASE]; what has "
           "blanks goes in \"\"");
    SnmpSecrets::User user{.name = words[1],
                           .writes = words[2] == "write",
                           .authProtocol = words[3],
                           .authPassphrase = words[4],
                           .privProtocol = {},
                           .privPassphrase = {}};
    demand(isOneOf(kAuthProtocols, user.authProtocol),
           fmt::format("the authentication protocol is one of {}", fmt::join(kAuthProtocols, ", ")));
    demand(isPassphrase(user.authPassphrase), "a passphrase has eight characters or more, of ASCII");
    if (words.size() == 7) {
      user.privProtocol = words[5];
      user.privPassphrase = words[6];
      demand(isOneOf(kPrivProtocols, words[5]),
             fmt::format("the privacy protocol is one of {}", fmt::join(kPrivProtocols, ", ")));
      demand(isPassphrase(words[6]), "a passphrase has eight characters or more, of ASCII");
    }
    demand(!user.name.empty() && user.name.size() <= kLongestName && isPrintable(user.name),
           "a user's name has 1 to 32 characters of ASCII");
    demand(secrets_.find(user.name) == nullptr, "a user of that name is there already");
    demand(user.writes || words[2] == "read", "after the user's name comes read or write");
    demand(!user.writes || user.hasPrivacy(), "a user who writes needs a privacy protocol too");
    secrets_.users.push_back(std::move(user));
  }

  static bool isPassphrase(const std::string& text) {
    return text.size() >= kShortestPassphrase && isPrintable(text);
  }

  std::string origin_;
  int number_ = 0;
  SnmpSecrets secrets_;
};

std::string contentOf(const std::filesystem::path& file) try {
  using std::filesystem::perms;
  std::string content = base::readFile(file, kLongestFile);
  const perms mode = std::filesystem::status(file).permissions();
  if ((mode & (perms::group_all | perms::others_all)) != perms::none) {
    throw std::runtime_error(
        fmt::format("SNMP secrets {0} are not its owner's alone (mode {1:04o}): chmod 600 {0}", file.string(),
                    static_cast<unsigned>(mode)));
  }
  return content;
} catch (const std::system_error& e) {
  throw std::runtime_error(fmt::format("cannot read SNMP secrets {}: {}", file.string(), e.code().message()));
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

SnmpSecrets loadSnmpSecrets(const std::filesystem::path& file) {
  if (!file.empty()) return parseSnmpSecrets(contentOf(file), file.string());
  const char* text = std::getenv(kVariable);
  return text == nullptr ? SnmpSecrets{} : parseSnmpSecrets(text, kVariable);
}

}  // namespace headend
