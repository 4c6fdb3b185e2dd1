// The web page of `headend --web`: qamweb, in a child of this process.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <sys/types.h>

#include <string>

#include "headend/options.h"

namespace headend {

class WebProcess : boost::noncopyable {
 public:
  // Shows the headend with this management socket and this calibration service (empty: none). Returns when
  // browsers can connect. Throws std::runtime_error, also if qamweb could not begin; it has printed why.
  WebProcess(const std::string& management, const std::string& calibration, const Options::Web& options);
  ~WebProcess();

  const std::string& announced() const { return announced_; }  // a line with the page's address

 private:
  std::string announced_;
  pid_t child_ = -1;
};

}  // namespace headend
