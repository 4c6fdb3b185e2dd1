// Assembles the sections of one PID from its packets, and reports errors. Used by psi_capture; does not
// depend on tables, CRCs or versions.
#pragma once

#include <functional>
#include <optional>
#include <span>

#include "mpeg/section.h"

namespace mpeg {

class SectionGatherer {
 public:
  enum class Loss {
    kTransportError,  // the packet is marked as damaged
    kScrambled,
    kContinuityError,  // packets are missing before this one
    kBadPacket,        // no room for the announced adaptation field or pointer
    kNotSections,      // the packet starts an elementary stream's unit
    kCutSection,       // the rest of a section is missing; with its table_id
  };
  using OnSection = std::function<void(std::span<const u8> section)>;
  using OnLoss = std::function<void(Loss loss, std::optional<u8> tableId)>;

  SectionGatherer(OnSection onSection, OnLoss onLoss);

  // A packet of the PID, kTsPacketSize bytes from its sync byte on.
  void push(std::span<const u8> packet);

  // There are no more packets.
  void finish() { cut(); }

 private:
  enum class Order { kFollows, kRepeats, kBreaks };
  Order order(std::span<const u8> packet);
  void start(std::span<const u8> payload);
  void append(std::span<const u8>& payload);
  void cut();

  OnSection onSection_;
  OnLoss onLoss_;
  Bytes open_;                      // received part of a section; empty if none is open
  std::optional<Packet> previous_;  // the last packet with payload
  bool repeated_ = false;           // it was received twice
};

}  // namespace mpeg
