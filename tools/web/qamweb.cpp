// qamweb: a web page that shows headends. A client of their management sockets, as qamctl is.
#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <thread>

#include "base/address.h"
#include "base/files.h"
#include "protocol/datagram.h"
#include "tools/web/server.h"

namespace tools {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongCall = 2;

constexpr const char* kFooter =
    "The page shows the chassis, the RF outputs, streams, the front panel, alarms and the start-up, and "
    "changes\n"
    "nothing. /metrics is for Prometheus; the JSON below /api/ is in docs/web.md.\n"
    "\n"
    "Without --listen only programs of this machine reach it; from another one use 'ssh -L "
    "49162:localhost:49162'.\n"
    "\n"
    "Examples:\n"
    "  qamweb\n"
    "  qamweb --server north=127.0.0.1:49160 --server south=192.0.2.7:49160\n"
    "\n"
    "Exit codes: 0 ended by a signal; 1 the address cannot be used; 2 wrong call.";

struct Options {
  struct Server {
    std::string name, address;
  };
  std::vector<Server> servers;
  base::Address listen{.host = "127.0.0.1", .port = protocol::kDefaultWebPort};
  std::vector<std::string> names;
};

Options::Server serverOf(const std::string& text) {
  const std::size_t equals = text.rfind('=');
  const std::string address = equals == std::string::npos ? text : text.substr(equals + 1);
  const std::string name = equals == std::string::npos ? text : text.substr(0, equals);
  return {name,
          commands::valid(client::isServer(address) && !name.empty() ? std::optional(address) : std::nullopt,
                          text, "[NAME=]ADDR:PORT (an IPv6 address in brackets)")};
}

Options optionsOf(std::vector<std::string> words) {
  Options options;
  commands::Form form("qamweb", "Shows virtual headends in a browser.");
  form.values(commands::Option("--server", "[NAME=]ADDR:PORT",
                               fmt::format("a headend's management socket (default 127.0.0.1:{})",
                                           protocol::kDefaultManagementPort))
                  .repeatable(),
              options.servers, serverOf);
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
              options.names, std::identity());
  form.footer(kFooter);
  form.parse(std::move(words));
  if (options.servers.empty())
    options.servers.push_back(serverOf(fmt::format("127.0.0.1:{}", protocol::kDefaultManagementPort)));
  for (auto each = options.servers.begin(); each != options.servers.end(); ++each) {
    if (std::any_of(options.servers.begin(), each,
                    [&](const auto& other) { return other.name == each->name; }))
      throw commands::WrongCall("--server: two headends are called '" + each->name + "'");
  }
  return options;
}

int run(const Options& options) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);  // in all threads: they are awaited here
  std::signal(SIGPIPE, SIG_IGN);

  std::vector<std::unique_ptr<Feed>> feeds;
  WebServer server(feeds, {options.names.begin(), options.names.end()});
  const u16 port = server.open(options.listen.host, options.listen.port);
  for (const auto& [name, address] : options.servers) feeds.push_back(std::make_unique<Feed>(name, address));
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
