// The integer names of the chassis firmware, and the macros with which these headers serve C99, C++11 and the
// module's own sources. Included by every header of this folder.
#pragma once

#include <stddef.h>
#include <stdint.h>

typedef uint8_t u8;
typedef uint16_t u16;
typedef uint32_t u32;

enum {
  QAM_SLOTS = 6,    // of a chassis
  QAM_CHANNELS = 2  // of a card
};

// A group of declarations with C linkage. Only the module's own sources, and a host that runs them, have them
// in namespaces, so that they do not meet names of the host.
#if defined(__cplusplus) && defined(QAM_NAMESPACES)
#define QAM_BEGIN(space) \
  namespace space {      \
  extern "C" {
#define QAM_END \
  }             \
  }
#elif defined(__cplusplus)
#define QAM_BEGIN(space) extern "C" {
#define QAM_END }
#else
#define QAM_BEGIN(space)
#define QAM_END
#endif

// A name of such a group where it is used outside it.
#if defined(__cplusplus) && defined(QAM_NAMESPACES)
#define QAM_NAME(space, name) space::name
#else
#define QAM_NAME(space, name) name
#endif

// A compile error if a record is not laid out as the module expects it.
#ifdef __cplusplus
#define QAM_LAYOUT(holds) static_assert(holds, #holds)
#else
#define QAM_LAYOUT(holds) extern const char qamLayoutHolds[(holds) ? 1 : -1]
#endif

// The arguments of a routine like printf, counted from 1.
#ifdef __GNUC__
#define QAM_PRINTF(format_at, values_at) __attribute__((format(printf, format_at, values_at)))
#else
#define QAM_PRINTF(format_at, values_at)
#endif
