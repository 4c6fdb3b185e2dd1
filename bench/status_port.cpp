#include "bench/status_port.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <system_error>

namespace bench {
namespace {

StatusPort* current = nullptr;  // a signal handler cannot get our argument

}  // namespace

StatusPort::StatusPort() : pageSize_(static_cast<std::size_t>(sysconf(_SC_PAGESIZE))) {
  void* pages = mmap(nullptr, 2 * pageSize_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) throw std::system_error(errno, std::generic_category(), "mapping two pages");
  requestPage_ = static_cast<char*>(pages);
  statusPage_ = requestPage_ + pageSize_;
  void* board = statusPage_ - sizeof(Reg16) - offsetof(bbFpga_t, fpgaCfg);
  mainBoard_ = static_cast<bbFpga_t*>(board);
  port().fpga_done = 1;

  current = this;
  struct sigaction action {};
  action.sa_sigaction = onAccess;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, nullptr);
  close(requestPage_);
}

StatusPort::~StatusPort() {
  std::signal(SIGSEGV, SIG_DFL);
  current = nullptr;
  munmap(requestPage_, 2 * pageSize_);
}

void StatusPort::onAccess(int /*signal*/, siginfo_t* info, void* /*context*/) {
  current->access(static_cast<const char*>(info->si_addr));
}

void StatusPort::access(const char* address) {
  if (address < requestPage_ || address >= statusPage_ + pageSize_) std::abort();
  open(statusPage_);
  if (address >= statusPage_) {
    close(requestPage_);
    return;
  }
  // Start and release alternate.
  port().fpga_stat = requests_++ % 2;
  close(statusPage_);
  open(requestPage_);
}

void StatusPort::open(char* page) {
  if (mprotect(page, pageSize_, PROT_READ | PROT_WRITE) != 0) std::abort();
}
void StatusPort::close(char* page) {
  if (mprotect(page, pageSize_, PROT_NONE) != 0) std::abort();
}

}  // namespace bench
