// A configuration port in plain memory whose status follows the requests, as the loader expects, although a
// cell of memory does not change by itself and the code that is counted must not be touched.
//
// The port lies across the border of two pages, the request register on the first, all others on the second,
// and only one of them can be accessed at a time. So the processor stops each time the loader turns from one
// to the other, which is four times in a whole configuration: at the start request, from which the status
// shall read 0; at the first look at the status; at the release, from which it shall read 1; and at the next
// look. Then the second page is open, and the stream runs into it at full speed. `fpga_done` reads 1
// throughout: the loader asks for it only at the end.
#pragma once

#include <csignal>

#include "platform/mainboard.h"

namespace bench {

// One at a time: it takes the process's SIGSEGV.
class StatusPort {
 public:
  StatusPort();
  StatusPort(const StatusPort&) = delete;
  StatusPort& operator=(const StatusPort&) = delete;
  ~StatusPort();

  // The main board's block, which has the port of slot 1. The rest of it must not be used.
  bbFpga_t* mainBoard() { return mainBoard_; }
  brdFpgaCfg_t& port() { return mainBoard_->fpgaCfg[0]; }

 private:
  static void onAccess(int signal, siginfo_t* info, void* context);
  void access(const char* address);
  void open(char* page);
  void close(char* page);

  std::size_t pageSize_;
  char* requestPage_;
  char* statusPage_;
  bbFpga_t* mainBoard_;
  unsigned requests_ = 0;
};

}  // namespace bench
