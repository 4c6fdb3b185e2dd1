// The front panel on the terminal that a run was started from: a child of the process, which reaches the
// headend over the management socket like every client. A headend that crashes takes it along, and the
// terminal is as it was.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

namespace headend {

class PanelProcess {
 public:
  // Makes the child, which waits for `show`: to be called while the process has neither sockets nor outputs.
  // Throws std::runtime_error where there is no terminal for a panel.
  PanelProcess();
  ~PanelProcess();
  PanelProcess(const PanelProcess&) = delete;
  PanelProcess& operator=(const PanelProcess&) = delete;

  // The panel takes the terminal; what the process says on it from now on is kept until the panel has ended.
  // When it ends by itself, the process gets SIGCHLD. Throws std::runtime_error.
  void show(const std::string& server);

  // Ends the panel and prints what was said meanwhile, the last lines of it. Returns whether the panel ended
  // well.
  bool close();

 private:
  struct Kept {  // a stream on the terminal, turned aside
    int stream;
    int terminal;
  };
  void turnAside(int stream);
  void turnBack();

  pid_t child_ = -1;
  int server_ = -1;  // a pipe, on which the child waits for its address
  std::FILE* said_ = nullptr;
  std::vector<Kept> kept_;
};

}  // namespace headend
