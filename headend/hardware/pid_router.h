// The chassis's PID router between the inputs of source cards and the outputs of modulator cards. The chassis
// programs its map word by word. An output reads its packets when it needs them, so the router uses no
// processor time while no output reads.
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
    std::uint64_t packets = 0;  // delivered; with damaged ones that have a readable PID
    std::uint64_t damaged =
        0;  // marked by transport_error_indicator, or without a sync byte: these are not delivered
    std::optional<Nanos> last;  // arrival of the last packet with a sync byte
  };

  // Slots from 0 to 5, ports of inputs from 0 to 15, ports of outputs 0 and 1. Input and output must outlive
  // the router; the router becomes the feed of the output.
  void connectInput(int slot, int port, TsInput& source);
  void connectOutput(int slot, int port, Multiplexer& output);

  // Programs a position of an output's map, for packets that arrive after `now`. Does nothing for a position
  // or an output that does not exist.
  void set(Nanos now, int slot, int port, u16 index, const Words& words);
  const Words& position(int slot, int port, u16 index) const;
  std::size_t used(int slot, int port) const;  // positions in use
  // Number of used positions without effect, because an earlier position in the same map has the same source.
  std::size_t shadowed(int slot, int port) const;

  // In order of arrival; packets of the same time by slot and port.
  void deliverUntil(Nanos now) override;

  // From `now` on the packets of an input are lost, or no longer. False: no such input.
  bool cut(Nanos now, int slot, int port, bool isCut);

  const InputCounts* input(int slot, int port) const;  // null: no such input
  // Called with every packet of an input that has a sync byte; an empty function removes it. No effect if the
  // input does not exist.
  void onPacket(int slot, int port, std::function<void(mpeg::PacketView)> observer);
  // Whether the output's map names an input that has delivered nothing for half a second, or never.
  bool inputLost(int slot, int port, Nanos now);

 private:
  using Key = u32;  // source slot, port and PID: 4, 4 and 13 bits
  static constexpr u16 kNoRoute = 0xFFFF;
  static constexpr std::size_t kOutputs = std::size_t{MAX_BOARD_NUM} * MAX_QAM_OUT_NUM;
  static constexpr std::size_t kNameable = 256;  // inputs that a word can address, by slot and port

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
    bool isCut = false;
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
