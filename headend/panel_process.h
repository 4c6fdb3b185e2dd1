// The front panel on the terminal from which a run was started: a child process that uses the management
// socket like every client. If the headend crashes, the child ends too and restores the terminal.
#pragma once

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

namespace headend {

class PanelProcess {
 public:
  // Creates the child, which waits for `show`: call it while the process has no sockets or outputs. Throws
  // std::runtime_error if there is no terminal for a panel.
  PanelProcess();
  ~PanelProcess();
  PanelProcess(const PanelProcess&) = delete;
  PanelProcess& operator=(const PanelProcess&) = delete;

  // The panel takes over the terminal; the output of the process is stored from now on until the panel ends.
  // If the panel ends by itself, the process gets SIGCHLD. Throws std::runtime_error.
  void show(const std::string& server);

  // Ends the panel and prints the last lines of the stored output. Returns whether the panel ended without an
  // error.
  bool close();

 private:
  struct Kept {  // a redirected stream of the terminal
    int stream;
    int terminal;
  };
  void turnAside(int stream);
  void turnBack();

  pid_t child_ = -1;
  int server_ = -1;  // a pipe from which the child reads its address
  std::FILE* said_ = nullptr;
  std::vector<Kept> kept_;
};

}  // namespace headend
