#include "headend/web_process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "headend/child_process.h"
#include "headend/fail.h"

namespace headend {

WebProcess::WebProcess(const std::string& server, const base::Address& listen) {
  const std::string program = programBeside("qamweb");
  std::array<int, 2> ends{};
  if (pipe(ends.data()) != 0) fail("no web page: pipe: {}", std::strerror(errno));
  std::fflush(nullptr);
  const pid_t self = getpid();
  child_ = fork();
  if (child_ < 0) fail("no web page: fork: {}", std::strerror(errno));
  if (child_ == 0) {
    dup2(ends[1], STDOUT_FILENO);
    for (const int end : ends) ::close(end);
    becomeProgram(program, {"--server", "headend=" + server, "--listen", base::addressText(listen)}, self);
  }
  ::close(ends[1]);
  std::FILE* said = fdopen(ends[0], "r");
  for (int c = std::fgetc(said); c != EOF && c != '\n'; c = std::fgetc(said))
    announced_ += static_cast<char>(c);
  std::fclose(said);
  if (announced_.empty()) fail("no web page");
}

WebProcess::~WebProcess() {
  kill(child_, SIGTERM);
  waitpid(child_, nullptr, 0);
}

}  // namespace headend
