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
#include "platform/router_word.h"

namespace headend {

class PidRouter final : public PacketFeed {
 public:
  static constexpr Nanos kLostAfter = kSecond / 2;

  using Words = chassis::RouterWords;

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
  void onPacket(int slot, int port, std::function<void(mpeg::PacketView)> observer);
  // Whether the output's map names an input that has delivered nothing for half a second, or since the
  // beginning when it never has.
  bool inputLost(int slot, int port, Nanos now);

 private:
  using Key = u32;  // source slot, port and PID: 4, 4 and 13 bits
  static constexpr u16 kNoRoute = 0xFFFF;
  static constexpr std::size_t kOutputs = std::size_t{MAX_BOARD_NUM} * MAX_QAM_OUT_NUM;
  static constexpr std::size_t kNameable = 256;  // inputs that a word can name, by slot and port

  struct Position {
    Words words = chassis::kUnusedPosition;
    u16 nextRoute = kNoRoute;  // the next one of the same source, in another output
    bool inUse() const { return chassis::isUsed(words); }
    Key key() const { return chassis::sourceOf(words); }
  };
  struct Output {
    Multiplexer* multiplexer = nullptr;
    std::array<Position, kPidMapSize> map;
    std::array<u16, kNameable> namedBy{};  // positions in use that name an input
  };
  struct Input {
    TsInput* source = nullptr;
    InputCounts counts;
    std::function<void(mpeg::PacketView)> observer;
    std::array<u16, kPids> routes{};  // the first route of each PID
  };
  struct Lane {
    Nanos next;
    Input* input;
  };

  static std::size_t inputIndex(int slot, int port);
  static std::size_t outputIndex(int slot, int port);
  Position& route(u16 number) { return outputs_[number / kPidMapSize].map[number % kPidMapSize]; }
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
