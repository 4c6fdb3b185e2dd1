#include "headend/child_process.h"

#include <fmt/format.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "headend/fail.h"

namespace headend {

std::string programBeside(const std::string& name) {
  const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  for (const auto& file : {folder / name, folder.parent_path() / "tools" / name}) {
    if (access(file.c_str(), X_OK) == 0) return file.string();
  }
  fail("the program {} is not in {}", name, folder.string());
}

void becomeProgram(const std::string& program, std::vector<std::string> arguments, pid_t parent) {
  for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD, SIGPIPE}) std::signal(number, SIG_DFL);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  arguments.insert(arguments.begin(), std::filesystem::path(program).filename());
  std::vector<char*> words;
  words.reserve(arguments.size() + 1);
  for (std::string& each : arguments) words.push_back(each.data());
  words.push_back(nullptr);
  if (getppid() == parent) execv(program.c_str(), words.data());
  fmt::print(stderr, "headend: cannot start {}: {}\n", program, std::strerror(errno));
  std::fflush(stderr);
  _exit(1);
}

}  // namespace headend
