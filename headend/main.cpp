// The program `headend`.
#include <fmt/format.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <optional>
#include <system_error>

#include "base/files.h"
#include "headend/fail.h"
#include "headend/page_report.h"
#include "headend/panel_process.h"
#include "headend/report.h"
#include "headend/status_view.h"
#include "headend/web_process.h"

namespace {

std::atomic<bool> interrupted{false};

void onSignal(int) {
  interrupted = true;
}

void writeReport(const std::string& path, const std::string& text) try {
  base::writeOutput(path, {reinterpret_cast<const u8*>(text.data()), text.size()});
} catch (const std::system_error& e) {
  headend::fail("cannot write report {}: {}", path, e.code().message());
}

bool isPage(const std::string& report) {
  return report.ends_with(".html");
}

// A report is written at the end of the run: better no run than one without its report.
void requireFolderOf(const std::string& report) {
  std::error_code ignored;
  const std::filesystem::path folder = std::filesystem::path(report).parent_path();
  if (!folder.empty() && !std::filesystem::is_directory(folder, ignored))
    headend::fail("cannot write report {}: there is no folder {}", report, folder.string());
}

int run(const headend::Options& options) {
  if (options.initFlash) {
    headend::initFlash(options.flash);
    fmt::print("made flash folder {} with the sample bitstream\n", options.flash.string());
    return headend::kExitDone;
  }
  for (const std::string& report : options.reports) requireFolderOf(report);
  std::optional<headend::PanelProcess> panel;
  if (options.panel) panel.emplace();
  headend::Headend machine(options);
  if (panel) panel->show(machine.managementAddress());
  headend::provideStatus(machine);
  headend::StatusView view(machine);
  std::optional<headend::PageReport> page;
  if (std::ranges::any_of(options.reports, isPage)) page.emplace(machine);
  machine.onTick = [&view, &page] {
    view.update();
    if (page) page->update();
  };
  if (options.manage) fmt::print("management on {}\n", machine.managementAddress());
  if (options.calibration) fmt::print("calibration on {}\n", machine.calibrationAddress());
  if (const auto& snmp = machine.snmp) {
    fmt::print("SNMP {}, engine ID {}\n", snmp->address().empty() ? "sends only" : "on " + snmp->address(),
               headend::engineIdText(snmp->engine()));
  }
  std::optional<headend::WebProcess> web;
  if (options.web.listen) {
    const std::string calibration = options.calibration ? machine.calibrationAddress() : "";
    fmt::print("{}\n", web.emplace(machine.managementAddress(), calibration, options.web).announced());
  }
  std::fflush(stdout);
  int code = headend::run(machine, interrupted);
  if (panel && !panel->close() && code == headend::kExitDone) code = headend::kExitFailed;
  for (const std::string& report : options.reports)
    writeReport(report, isPage(report) ? page->text() : headend::reportText(machine));
  return code;
}

}  // namespace

int main(int argc, char** argv) {
  base::openStandardStreams();
  const headend::CommandLine line = headend::parseCommandLine(argc, argv);
  if (line.exitCode) return *line.exitCode;
  struct sigaction action {};
  action.sa_handler = onSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);  // a second signal ends it at once
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  if (line.options.panel) {
    sigaction(SIGHUP, &action, nullptr);
    action.sa_flags = SA_NOCLDSTOP;  // quitting the panel ends the run
    sigaction(SIGCHLD, &action, nullptr);
  }
  std::signal(SIGPIPE, SIG_IGN);
  try {
    return run(line.options);
  } catch (const std::exception& e) {
    fmt::print(stderr, "headend: {}\n", e.what());
    return headend::kExitFailed;
  }
}
