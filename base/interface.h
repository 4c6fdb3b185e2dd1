// Base of classes that are used through their virtual functions: destroyed through the base, never copied.
#pragma once

namespace base {

struct Interface {
  Interface() = default;
  Interface(const Interface&) = delete;
  Interface& operator=(const Interface&) = delete;
  virtual ~Interface() = default;
};

}  // namespace base
