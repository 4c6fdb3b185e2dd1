#include "tools/commands.h"

#include <fmt/format.h>

#include <charconv>
#include <cstdio>
#include <exception>
#include <iostream>
#include <stdexcept>

#include "client/channel.h"
#include "client/udp_link.h"
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
        return client::parseChannel(text) ? "" : fmt::format("'{}' is no SLOT.CHANNEL from 1.1 to 6.2", text);
      })
      ->type_name("N.P");
}

CLI::Option* addSlot(CLI::App* app, std::string& slot) {
  return app->add_option("slot", slot, fmt::format("slot of the card, 1 to {}", client::kSlots))
      ->check([](const std::string& text) {
        const bool is = text.size() == 1 && text[0] >= '1' && text[0] < '1' + client::kSlots;
        return is ? "" : fmt::format("'{}' is no slot from 1 to {}", text, client::kSlots);
      })
      ->type_name("N");
}

int slotOf(const std::string& slot) {
  return slot.at(0) - '1';
}

std::optional<u32> wordOf(std::string_view text) {
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  if (hex) text.remove_prefix(2);
  const char* end = text.data() + text.size();
  u32 value = 0;
  const auto [at, error] = std::from_chars(text.data(), end, value, hex ? 16 : 10);
  return error == std::errc() && at == end ? std::optional(value) : std::nullopt;
}

std::optional<u16> numberOf(std::string_view text, u16 most) {
  const auto value = wordOf(text);
  return value && *value <= most ? std::optional(static_cast<u16>(*value)) : std::nullopt;
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
