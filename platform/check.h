// Checks of arguments. A failed check is reported with its text, unit and line, and the code continues as if
// it had passed: the chassis decides what happens then.
#pragma once

#include "platform/types.h"

#ifndef QAM_VIRTUAL_BUS
#include "qamcard/plain_names.h"
#endif

namespace os {

// After a failed check, errors are the caller's fault and not a finding for the analyzer.
#ifdef __clang_analyzer__
__attribute__((analyzer_noreturn))
#endif
#ifdef QAM_VIRTUAL_BUS
void checkFailed(const char* text, const char* unit, int line);
#else
inline void checkFailed(const char* text, const char* unit, int line) {
  firmware::__assert_fail(text, unit, static_cast<unsigned>(line), "");
}
#endif

// `line` is given where field engineers search for that number in their notes; elsewhere it is the caller's
// line.
inline void check(bool holds, const char* text, const char* unit, int line = __builtin_LINE()) {
  if (!holds) checkFailed(text, unit, line);
}

}  // namespace os
