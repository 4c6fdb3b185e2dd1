#include "headend/panel_process.h"

#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <utility>

#include "headend/child_process.h"
#include "headend/fail.h"

namespace headend {
namespace {

constexpr std::size_t kLinesShown = 100;

}  // namespace

PanelProcess::PanelProcess() : program_(programBeside("qamctl")) {
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0)
    fail("the panel needs a terminal: stdin and stdout must be one");
}

void PanelProcess::show(const std::string& server) {
  said_ = std::tmpfile();
  if (said_ == nullptr)
    fail("no panel: a temporary file for what the headend prints: {}", std::strerror(errno));
  std::fflush(nullptr);
  const pid_t self = getpid();
  child_ = fork();
  if (child_ < 0) fail("no panel: fork: {}", std::strerror(errno));
  // The panel stays if the headend is stopped for a while; a signal reports the headend's end.
  if (child_ == 0) becomeProgram(program_, {"--server", server, "panel", "--patience", "86400"}, self);
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) {
    if (isatty(stream) == 0) continue;
    kept_.push_back({.stream = stream, .terminal = dup(stream)});
    dup2(fileno(said_), stream);
  }
}

void PanelProcess::turnBack() {
  std::fflush(nullptr);
  for (const Kept& kept : kept_) {
    dup2(kept.terminal, kept.stream);
    ::close(kept.terminal);
  }
  kept_.clear();
  std::rewind(said_);
  std::deque<std::string> lines;
  std::size_t dropped = 0;
  std::array<char, 4096> line{};
  while (std::fgets(line.data(), line.size(), said_) != nullptr) {
    lines.emplace_back(line.data());
    if (lines.size() <= kLinesShown) continue;
    lines.pop_front();
    ++dropped;
  }
  std::fclose(std::exchange(said_, nullptr));
  if (dropped > 0) fmt::print(stderr, "headend: {} lines left out here; --log FILE keeps them\n", dropped);
  for (const std::string& text : lines) fmt::print(stderr, "{}", text);
}

bool PanelProcess::close() {
  if (child_ < 0) return true;
  kill(child_, SIGTERM);
  int status = 0;
  while (waitpid(child_, &status, 0) < 0 && errno == EINTR) {
  }
  child_ = -1;
  if (said_ != nullptr) turnBack();
  const bool killed = WIFSIGNALED(status) && WTERMSIG(status) != SIGTERM;
  return !killed && (!WIFEXITED(status) || WEXITSTATUS(status) == 0);
}

}  // namespace headend
