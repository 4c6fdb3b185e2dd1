// Base of classes that are used through their virtual functions: destroyed through the base, never copied.
#pragma once

#include <boost/core/noncopyable.hpp>

namespace base {

struct Interface : boost::noncopyable {
  virtual ~Interface() = default;
};

}  // namespace base
