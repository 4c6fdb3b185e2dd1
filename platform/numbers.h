// The numbers shared by chassis, cards and transport streams. Included by the module and by everything above
// it.
#pragma once

#include "platform/types.h"

inline constexpr u8 MAX_BOARD_NUM = QAM_SLOTS;       // slots of a chassis
inline constexpr u8 MAX_QAM_OUT_NUM = QAM_CHANNELS;  // channels of a card
inline constexpr u8 kInputsPerCard = 16;             // inputs of a source card that a router word can address
inline constexpr std::size_t kPidMapSize =
    256;  // entries of a channel's PID map, and positions of its router
inline constexpr std::size_t kPsiStoreSize = 512;  // packets that a channel stores, over all its tables

// ISO/IEC 13818-1.
inline constexpr std::size_t kTsPacketSize = 188;
inline constexpr u16 kPids = 0x2000;
inline constexpr u16 kNullPid =
    0x1FFF;  // of null packets; a table that must name a PID but has none uses this value
