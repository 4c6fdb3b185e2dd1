// The chassis's PID router between the inputs of source cards and the outputs of modulator cards. The chassis
// programs its map word by word; an output asks for its packets when it comes to them, and so the router
// costs nothing while nobody looks.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "headend/hardware/multiplexer.h"
#include "headend/hardware/ts_input.h"

namespace headend {

class PidRouter final : public PacketFeed {
 public:
  static constexpr int kSlots = 6;
  static constexpr int kInputPorts = 16;
  static constexpr int kOutputPorts = 2;
  static constexpr u16 kPositions = 256;
  static constexpr Nanos kLostAfter = kSecond / 2;

  // 35 bits, lowest word first: source PID (13), source port (4), source slot (4), in use (1), destination
  // PID (13).
  using Words = std::array<u16, 3>;
  static constexpr Words kUnused = {0xFFFF, 0x001F, 0x0000};

  struct InputCounts {
    std::uint64_t packets = 0;  // delivered; with the damaged ones of which the PID can be read
    std::uint64_t damaged =
        0;  // marked by transport_error_indicator, or without a sync byte: those go nowhere
    std::optional<Nanos> last;  // when the last packet with a sync byte came
  };

  // Slots from 0 to 5, ports of inputs from 0 to 15, ports of outputs 0 and 1. Input and output outlive the
  // router's use; the output gets the router as its feed.
  void connectInput(int slot, int port, TsInput& source);
  void connectOutput(int slot, int port, Multiplexer& output);

  // Programs a position of an output's map, from packets on that arrive after `now`. Nothing happens for a
  // position or an output that there is not.
  void set(Nanos now, int slot, int port, u16 index, const Words& words);
  const Words& position(int slot, int port, u16 index) const;
  std::size_t used(int slot, int port) const;  // positions in use
  // How many positions in use have no effect, for one before them in the same map names the same source.
  std::size_t shadowed(int slot, int port) const;

  // In order of arrival, at one time by slot and port.
  void deliverUntil(Nanos now) override;

  const InputCounts* input(int slot, int port) const;  // null: there is no such input
  // Shown every packet of an input that has a sync byte; an empty function ends it. No effect without the
  // input.
  void onPacket(int slot, int port, std::function<void(TsPacketView)> observer);
  // Whether the output's map names an input that has delivered nothing for half a second, or since the
  // beginning when it never has.
  bool inputLost(int slot, int port, Nanos now);

 private:
  using Key = u32;  // source slot, port and PID: 4, 4 and 13 bits
  static constexpr u16 kNoRoute = 0xFFFF;
  static constexpr std::size_t kOutputs = std::size_t{kSlots} * kOutputPorts;
  static constexpr std::size_t kNameable = 256;  // inputs that a word can name, by slot and port

  struct Position {
    Words words = kUnused;
    u16 nextRoute = kNoRoute;  // the next one of the same source, in another output
    bool inUse() const { return (words[1] & 0x20) != 0; }
    Key key() const { return (u32{words[0]} | u32{words[1]} << 16) & 0x1FFFFF; }
    u16 destination() const { return static_cast<u16>(words[1] >> 6 | (words[2] & 7) << 10); }
  };
  struct Output {
    Multiplexer* multiplexer = nullptr;
    std::array<Position, kPositions> map;
    std::array<u16, kNameable> namedBy{};  // positions in use that name an input
  };
  struct Input {
    TsInput* source = nullptr;
    InputCounts counts;
    std::function<void(TsPacketView)> observer;
    std::array<u16, kPids> routes{};  // the first route of each PID
  };
  struct Lane {
    Nanos next;
    Input* input;
  };

  static std::size_t inputIndex(int slot, int port);
  static std::size_t outputIndex(int slot, int port);
  Position& route(u16 number) { return outputs_[number / kPositions].map[number % kPositions]; }
  void relink(std::size_t output, Key key);
  void listenToIdle();
  Lane* earliest();
  void deliver(Lane& lane);

  std::array<std::unique_ptr<Input>, kNameable> inputs_;
  std::array<Output, kOutputs> outputs_;
  std::vector<Lane> lanes_;  // of all inputs, by slot and port
  Nanos earliest_ = kNever;
  bool someIdle_ = false;
  bool delivering_ = false;
};

}  // namespace headend
