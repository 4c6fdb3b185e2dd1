// The front panel of `headend --panel`: `qamctl panel`, in a child of this process. Meanwhile the child has
// the terminal: what this process prints on it is kept, and printed when the child has ended.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <sys/types.h>

#include <cstdio>
#include <string>
#include <vector>

namespace headend {

class PanelProcess : boost::noncopyable {
 public:
  // Throws std::runtime_error: stdin and stdout are no terminal, or qamctl is not beside this program.
  PanelProcess();
  ~PanelProcess() { close(); }

  // Shows the panel of the headend whose management socket has this address. Throws std::runtime_error.
  void show(const std::string& server);
  // Ends the child, if it still runs. False if it failed.
  bool close();

 private:
  void turnBack();

  struct Kept {
    int stream;
    int terminal;
  };
  std::string program_;
  pid_t child_ = -1;
  std::FILE* said_ = nullptr;  // what this process printed meanwhile
  std::vector<Kept> kept_;
};

}  // namespace headend
