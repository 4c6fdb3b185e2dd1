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

namespace {

std::vector<std::string> wordsFor(const std::string& management, const std::string& calibration,
                                  const Options::Web& options) {
  std::vector<std::string> words = {"--server", "headend=" + management, "--listen",
                                    base::addressText(options.listen.value())};
  if (!calibration.empty()) words.insert(words.end(), {"--calibration", "headend=" + calibration});
  if (options.isWritable) words.emplace_back("--web-write");
  if (!options.tokenFile.empty()) words.insert(words.end(), {"--web-token-file", options.tokenFile});
  return words;
}

}  // namespace

WebProcess::WebProcess(const std::string& management, const std::string& calibration,
                       const Options::Web& options) {
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
    becomeProgram(program, wordsFor(management, calibration, options), self);
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
