#include "tools/commands.h"

#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "client/udp_link.h"
#include "protocol/channel.h"
#include "tools/status_report.h"

namespace tools {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongCall = 2;

std::string checkServer(const std::string& text) {
  return client::isServer(text) ? "" : fmt::format("'{}' is no ADDR:PORT", text);
}

}  // namespace

void addServer(CLI::App& app, std::string& server, const char* text) {
  app.add_option("--server", server, text)->check(checkServer)->capture_default_str()->type_name("ADDR:PORT");
}

int runCommandLine(CLI::App& app, int argc, char** argv) {
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? 0 : kWrongCall;
  } catch (const std::exception& e) {
    fmt::print(stderr, "{}: {}\n", app.get_name(), e.what());
    return kFailed;
  }
  std::cout.flush();
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return 0;
  fmt::print(stderr, "{}: the output could not be written\n", app.get_name());
  return kFailed;
}

CLI::App* addCommand(CLI::App& parent, const char* name, const char* text, std::function<void()> run) {
  CLI::App* app = parent.add_subcommand(name, text);
  app->fallthrough();
  app->callback(std::move(run));
  return app;
}

CLI::Option* addChannel(CLI::App* app, std::string& channel) {
  return app->add_option("channel", channel, "slot (1 to 6) and channel (1 or 2), such as 1.2")
      ->required()
      ->check([](const std::string& text) {
        return protocol::parseChannel(text) ? ""
                                            : fmt::format("'{}' is no SLOT.CHANNEL from 1.1 to 6.2", text);
      })
      ->type_name("N.P");
}

CLI::Option* addSlot(CLI::App* app, std::string& slot) {
  return app->add_option("slot", slot, fmt::format("slot of the card, 1 to {}", MAX_BOARD_NUM))
      ->check([](const std::string& text) {
        return protocol::parseSlot(text) ? ""
                                         : fmt::format("'{}' is no slot from 1 to {}", text, MAX_BOARD_NUM);
      })
      ->type_name("N");
}

int slotOf(const std::string& slot) {
  return protocol::parseSlot(slot).value();
}

void addJson(CLI::App* app, bool& json) {
  app->add_flag("--json", json, "as JSON");
}

Json requiredStatusOf(const std::string& server) {
  client::UdpLink link(server);
  auto status = statusOf(link);
  if (!status) throw std::runtime_error(fmt::format("{}: the server tells no status", server));
  return *std::move(status);
}

void printJson(const Json& json) {
  fmt::print("{}\n", json.dump(2, ' ', true, Json::error_handler_t::replace));
}

}  // namespace tools
