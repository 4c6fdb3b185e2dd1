#include "headend/panel_process.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <deque>
#include <stdexcept>
#include <utility>

#include "tools/panel/panel.h"
#include "tools/panel/panel_terminal.h"

namespace headend {
namespace {

constexpr std::size_t kLinesShown = 100;

[[noreturn]] void fail(const char* what) {
  throw std::runtime_error(fmt::format("no panel: {}: {}", what, std::strerror(errno)));
}

// To the end of the pipe.
std::string readAll(int pipe) {
  std::string text;
  std::array<char, 256> buffer{};
  for (;;) {
    const ssize_t size = read(pipe, buffer.data(), buffer.size());
    if (size > 0)
      text.append(buffer.data(), static_cast<std::size_t>(size));
    else if (size == 0 || errno != EINTR)
      return text;
  }
}

// The child's whole life. No address: the headend could not be set up, and has said why.
[[noreturn]] void live(int pipe, pid_t parent) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) std::signal(number, SIG_DFL);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  int code = 0;
  const std::string server = readAll(pipe);
  if (!server.empty() && getppid() == parent) {
    try {
      // The panel stays if the headend is stopped for a while; a signal reports the headend's end.
      tools::runPanel({.server = server, .patience = std::chrono::hours(24)});
    } catch (const std::exception& e) {
      fmt::print(stderr, "headend: panel: {}\n", e.what());
      code = 1;
    }
  }
  std::fflush(stderr);
  _exit(code);
}

}  // namespace

PanelProcess::PanelProcess() {
  tools::requirePanelTerminal();
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("pipe");
  std::fflush(nullptr);
  const pid_t self = getpid();
  child_ = fork();
  if (child_ == 0) {
    ::close(ends[1]);
    live(ends[0], self);
  }
  ::close(ends[0]);
  server_ = ends[1];
  if (child_ < 0) fail("fork");
}

PanelProcess::~PanelProcess() {
  close();
}

void PanelProcess::show(const std::string& server) {
  said_ = std::tmpfile();
  if (said_ == nullptr) fail("a temporary file for what the headend says");
  for (const int stream : {STDOUT_FILENO, STDERR_FILENO}) turnAside(stream);
  if (write(server_, server.data(), server.size()) != static_cast<ssize_t>(server.size())) fail("write");
  ::close(std::exchange(server_, -1));
}

void PanelProcess::turnAside(int stream) {
  if (isatty(stream) == 0) return;
  std::fflush(nullptr);
  kept_.push_back({.stream = stream, .terminal = dup(stream)});
  dup2(fileno(said_), stream);
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
  if (server_ >= 0) ::close(std::exchange(server_, -1));
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
