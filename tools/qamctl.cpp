// qamctl: carries out the management commands over the chassis's sockets. Called by the name qamcal it has
// the commands of calibration only.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>

#include "base/files.h"
#include "base/progress.h"
#include "commands/socket_session.h"
#include "mpeg/tables.h"
#include "tools/panel/panel.h"

namespace tools {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongCall = 2;
constexpr int kNotKept = 3;
constexpr auto kCalibrationName = "qamcal";

constexpr const char* kFooter =
    "TABLE is {}: C is the actual stream or network, O another.\n"
    "TICKS are ticks of the chassis's auxiliary clock.\n"
    "\n"
    "Examples:\n"
    "  qamctl psi load 1.1 capture.ts --interval PAT=100 --interval SDT_C=500\n"
    "  qamctl psi show 1.1 --save backup.ts\n"
    "  qamctl psi interval 1.2 NIT_C=1000 BAT=0\n"
    "  qamctl pidmap load 1.1 map.csv\n"
    "  qamctl programme add 1.1 --from 2.1 --service News --pass 0x12\n"
    "  qamctl backup 1.1 channel.json\n"
    "  qamctl wait 1 && qamctl rates\n"
    "  qamctl var get 1 rfreq rflevel\n"
    "  qamctl var set 1 rfreq 602000\n"
    "  qamctl rf\n"
    "  qamctl alarms --history --lang zh\n"
    "  qamctl panel\n"
    "  qamctl key down ok\n"
    "  qamctl lcd --png panel.png\n"
    "  qamctl cal read 1\n"
    "  qamctl mib > QAM-HEADEND-MIB.txt\n"
    "  qamctl --server 192.0.2.7:49160 status\n"
    "\n"
    "Exit codes: 0 done; 1 the request could not be carried out (refused, card error, no reply, file error); "
    "2 wrong call; 3 done, but the chassis could not save the record of a card.";

class TerminalSession final : public commands::SocketSession {
 public:
  explicit TerminalSession(const std::string& server) : SocketSession(server, server) {}

  void print(const std::string& text) override {
    fmt::print("{}", text);
    if (std::fflush(stdout) != 0) throw std::runtime_error("the output could not be written");
  }
  void note(const std::string& text) override { fmt::print(stderr, "note: {}\n", text); }
  void progress(const std::string& text) override { progress_.show(text); }

  bool pause(std::chrono::milliseconds time) override {
    const sigset_t signals = held();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    const std::timespec limit = {.tv_sec = seconds.count(),
                                 .tv_nsec = std::chrono::nanoseconds(time - seconds).count()};
    return sigtimedwait(&signals, nullptr, &limit) < 0;
  }
  void holdSignals(bool hold) override {
    const sigset_t signals = held();
    sigprocmask(hold ? SIG_BLOCK : SIG_UNBLOCK, &signals, nullptr);
  }

  void showPanel(std::chrono::seconds patience) override { runPanel(chassis(), patience); }

  // False if a record of a card is not kept.
  bool warn() const {
    const std::vector<std::string> all = recordWarnings();
    for (const std::string& text : all) fmt::print(stderr, "warning: {}\n", text);
    return all.empty();
  }

 private:
  static sigset_t held() {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
    return signals;
  }

  base::ProgressLine progress_;  // removed before an error is printed
};

std::string serverOf(const std::string& text) {
  return commands::valid(client::isServer(text) ? std::optional(text) : std::nullopt, text,
                         "ADDR:PORT (an IPv6 address in brackets)");
}

// Returns the exit code.
int carryOut(const commands::Call& call, const std::string& server) {
  commands::Surroundings surroundings;
  call.command->prepare(surroundings);
  const std::string byDefault = fmt::format("127.0.0.1:{}", call.entry->needs == commands::Needs::kCalibration
                                                                ? client::kDefaultCalibrationPort
                                                                : protocol::kDefaultManagementPort);
  TerminalSession session(server.empty() ? byDefault : server);
  for (const std::string& note : surroundings.notes) session.note(note);
  try {
    call.command->carryOut(session);
  } catch (...) {
    session.warn();
    throw;
  }
  return session.warn() ? 0 : kNotKept;
}

int run(const std::string& name, std::vector<std::string> words) {
  const bool isCalibration = name == kCalibrationName;
  commands::Form form(
      name, isCalibration ? "Calibrates the DAC of a modulator card over its chassis's calibration service."
                          : "Manages the modulator cards of a chassis over its management socket.");
  std::string server;
  form.value(
      commands::Option(
          "--server", "ADDR:PORT",
          isCalibration ? fmt::format("the chassis's calibration service (default 127.0.0.1:{})",
                                      client::kDefaultCalibrationPort)
                        : fmt::format("the chassis's management socket (default 127.0.0.1:{}), or of 'cal' "
                                      "its calibration service (default 127.0.0.1:{})",
                                      protocol::kDefaultManagementPort, client::kDefaultCalibrationPort)),
      server, serverOf);
  if (!isCalibration) form.footer(fmt::format(kFooter, mpeg::tableNames("or")));
  commands::Calls calls(form, isCalibration ? "cal" : "");
  form.parse(std::move(words));
  return carryOut(calls.called(), server);
}

}  // namespace
}  // namespace tools

int main(int argc, char** argv) {
  base::openStandardStreams();
  const bool isCalibration = argc > 0 && std::filesystem::path(argv[0]).filename() == tools::kCalibrationName;
  const char* name = isCalibration ? tools::kCalibrationName : "qamctl";
  int code = 0;
  try {
    code = tools::run(name, {argv + 1, argv + argc});
  } catch (const commands::Help& help) {
    std::fputs(help.text.c_str(), stdout);
  } catch (const commands::WrongCall& e) {
    std::fprintf(stderr, "%s%s", e.what(), commands::kHelpAdvice);
    return tools::kWrongCall;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: %s\n", name, e.what());
    return tools::kFailed;
  }
  if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return code;
  std::fprintf(stderr, "%s: the output could not be written\n", name);
  return tools::kFailed;
}
