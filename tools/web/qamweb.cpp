// qamweb: a web page that shows headends. A client of their management sockets, as qamctl is.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "base/address.h"
#include "base/files.h"
#include "protocol/datagram.h"
#include "tools/web/server.h"

namespace tools {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongCall = 2;

constexpr const char* kFooter =
    "The page shows the chassis, the RF outputs, streams, the front panel, alarms and the start-up.\n"
    "It changes nothing without --web-write. /metrics is for Prometheus; the JSON below /api/ is in\n"
    "docs/web.md.\n"
    "\n"
    "Without --listen only programs of this machine reach it; from another one use\n"
    "'ssh -L 49162:localhost:49162'.\n"
    "\n"
    "With --web-write a user who knows a token may change all that qamctl may change. It is new at\n"
    "each start and shown on the terminal only, or written to a file that only this user may read.\n"
    "\n"
    "Examples:\n"
    "  qamweb\n"
    "  qamweb --server north=127.0.0.1:49160 --server south=192.0.2.7:49160\n"
    "  qamweb --web-write --web-token-file token --calibration 127.0.0.1:49156\n"
    "\n"
    "Exit codes: 0 ended by a signal; 1 the address cannot be used; 2 wrong call.";

struct Options {
  std::vector<Place> places;
  base::Address listen{.host = "127.0.0.1", .port = protocol::kDefaultWebPort};
  std::vector<std::string> names;
  bool isWritable = false, isBehindTls = false;
  std::string tokenFile;
};

// The name of "NAME=ADDR:PORT", which may be missing, and the address.
std::pair<std::string, std::string> namedAddress(const std::string& text) {
  const std::size_t equals = text.rfind('=');
  const std::string address = equals == std::string::npos ? text : text.substr(equals + 1);
  const std::string name = equals == std::string::npos ? text : text.substr(0, equals);
  return {name,
          commands::valid(client::isServer(address) && !name.empty() ? std::optional(address) : std::nullopt,
                          text, "[NAME=]ADDR:PORT (an IPv6 address in brackets)")};
}

Place placeOf(const std::string& text) {
  auto [name, address] = namedAddress(text);
  return {.name = std::move(name), .management = std::move(address), .calibration = {}};
}

std::string inSmallLetters(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  return text;
}

bool isLoopback(const std::string& host) {
  return host == "localhost" || host == "::1" || host.starts_with("127.");
}

// Of the headend with this name; without a name, of the only headend.
void nameCalibration(Options& options, const std::string& text) {
  const std::pair<std::string, std::string> named = namedAddress(text);
  const std::string& name = named.first;
  const bool isAlone = name == text && options.places.size() == 1;
  const auto found =
      std::ranges::find_if(options.places, [&](const Place& place) { return isAlone || place.name == name; });
  if (found == options.places.end())
    throw commands::WrongCall("--calibration: no --server is called '" + name + "'");
  found->calibration = named.second;
}

void check(const Options& options) {
  for (auto each = options.places.begin(); each != options.places.end(); ++each) {
    if (std::any_of(options.places.begin(), each,
                    [&](const auto& other) { return other.name == each->name; }))
      throw commands::WrongCall("--server: two headends are called '" + each->name + "'");
  }
  if (!options.isWritable && !options.tokenFile.empty())
    throw commands::WrongCall("--web-token-file needs --web-write");
  if (options.isWritable && !options.isBehindTls && !isLoopback(options.listen.host))
    throw commands::WrongCall(
        "--web-write: on " + options.listen.host +
        " the token would cross the network unencrypted: listen on 127.0.0.1 and use 'ssh -L', or put a "
        "proxy with TLS before it and give --web-behind-tls");
}

Options optionsOf(std::vector<std::string> words) {
  Options options;
  commands::Form form("qamweb", "Shows virtual headends in a browser.");
  form.values(commands::Option("--server", "[NAME=]ADDR:PORT",
                               fmt::format("a headend's management socket (default 127.0.0.1:{})",
                                           protocol::kDefaultManagementPort))
                  .repeatable(),
              options.places, placeOf);
  std::vector<std::string> calibrations;
  form.values(commands::Option("--calibration", "[NAME=]ADDR:PORT",
                               "the calibration service of the headend with that name")
                  .repeatable(),
              calibrations, std::identity());
  form.value(commands::Option("--listen", "ADDR:PORT",
                              fmt::format("where browsers connect; port 0: a free one (default 127.0.0.1:{})",
                                          protocol::kDefaultWebPort)),
             options.listen, [](const std::string& text) {
               return commands::valid(base::parseAddress(text), text,
                                      "ADDR:PORT (an IPv6 address in brackets)");
             });
  form.values(commands::Option(
                  "--web-name", "HOST",
                  "a host name by which browsers call this service, besides localhost; others are refused")
                  .repeatable(),
              options.names, inSmallLetters);
  form.flag("--web-write", "users who know the token may change settings, tables and all else",
            options.isWritable);
  form.text({"--web-token-file", "FILE",
             "write the token to FILE, which only this user may read, instead of showing it on the terminal; "
             "the file is removed at the end"},
            options.tokenFile);
  form.flag("--web-behind-tls",
            "a proxy with TLS is before this service: changes from other machines are allowed, and the "
            "session's cookie is for TLS only",
            options.isBehindTls);
  form.footer(kFooter);
  form.parse(std::move(words));
  if (options.places.empty())
    options.places.push_back(placeOf(fmt::format("127.0.0.1:{}", protocol::kDefaultManagementPort)));
  try {
    for (const std::string& text : calibrations) nameCalibration(options, text);
  } catch (const std::invalid_argument& e) {
    throw commands::WrongCall(std::string("--calibration: ") + e.what());
  }
  check(options);
  return options;
}

// The token, where only this user finds it: in a file that is removed at the end, or on the terminal.
class TokenPlace : boost::noncopyable {
 public:
  TokenPlace(const std::string& token, std::string file) : line_(token + "\n"), file_(std::move(file)) {
    if (file_.empty())
      show(token);
    else
      write();
  }
  ~TokenPlace() {
    if (content() == line_) unlink(file_.c_str());  // else another qamweb has written it since
  }

 private:
  static void show(const std::string& token) {
    std::FILE* terminal = isatty(STDOUT_FILENO) != 0 ? stdout : std::fopen("/dev/tty", "w");
    if (terminal == nullptr)
      throw commands::WrongCall(
          "--web-write: there is no terminal to show the token on: name a file with --web-token-file");
    fmt::print(terminal, "token for changes over the web page: {}\n", token);
    terminal == stdout ? std::fflush(terminal) : std::fclose(terminal);
  }
  std::string content() const {
    try {
      return file_.empty() ? "" : base::readFile(file_, line_.size());
    } catch (const std::system_error&) {
      return "";  // no file, or a longer one
    }
  }
  // A new file: an old one may have a reader, or belong to another user. One that is left by a qamweb that
  // was killed is replaced.
  void write() {
    const std::string old = content();
    if (old.size() == line_.size() && old.find_first_not_of("0123456789abcdef") == old.size() - 1)
      unlink(file_.c_str());
    const int file = ::open(file_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    const bool isWritten =
        file >= 0 && ::write(file, line_.data(), line_.size()) == static_cast<ssize_t>(line_.size());
    const int reason = errno;
    if (file >= 0) ::close(file);
    if (!isWritten)
      throw std::runtime_error(
          fmt::format("{}: the token cannot be written: {}", file_, std::strerror(reason)));
  }

  const std::string line_, file_;
};

int run(const Options& options) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // in all threads: they are awaited here
  std::signal(SIGPIPE, SIG_IGN);

  const std::string token = options.isWritable ? randomSecret() : "";
  Feeds feeds;
  WebServer server(feeds, {options.names.begin(), options.names.end()},
                   {.token = token, .isWritable = options.isWritable, .isBehindTls = options.isBehindTls});
  const u16 port = server.open(options.listen.host, options.listen.port);
  std::optional<TokenPlace> place;
  if (options.isWritable) place.emplace(token, options.tokenFile);
  for (const Place& each : options.places) feeds.push_back(std::make_unique<Feed>(each));
  fmt::print("web page on http://{}/\n", base::addressText({.host = options.listen.host, .port = port}));
  std::fflush(stdout);
  std::thread serving([&server] { server.serve(); });
  int received = 0;
  sigwait(&signals, &received);
  server.stop();
  serving.join();
  return 0;
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv) {
  base::openStandardStreams();
  try {
    return tools::run(tools::optionsOf({argv + 1, argv + argc}));
  } catch (const commands::Help& help) {
    return std::fputs(help.text.c_str(), stdout) < 0 || std::fflush(stdout) != 0 ? tools::kFailed : 0;
  } catch (const commands::WrongCall& e) {
    std::fprintf(stderr, "%s%s", e.what(), commands::kHelpAdvice);
    return tools::kWrongCall;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "qamweb: %s\n", e.what());
    return tools::kFailed;
  }
}
