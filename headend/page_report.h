// The report as a web page in one file: the page of qamweb with what it would ask for, for a browser without
// a server.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <string>

#include "headend/headend.h"
#include "tools/web/answers.h"

namespace headend {

class PageReport : boost::noncopyable {
 public:
  explicit PageReport(Headend& headend) : headend_(headend) {}

  // Call it at each system tick: it keeps the rates of each second.
  void update();
  // The whole file, once the run has ended; no virtual time passes. Less than half a megabyte, as long as the
  // lists of failed checks and late requests are short.
  std::string text();

 private:
  Headend& headend_;
  tools::RateHistory rates_;
  Nanos keptAt_ = 0;
};

}  // namespace headend
