// The main firmware as far as a card needs it: the card list, slot configuration, the panel's lines,
// parameter saving, and the start-up of the slots, each in a task of its own.
#pragma once

#include <array>
#include <optional>
#include <string>
#include <vector>

#include "headend/firmware/log.h"
#include "headend/firmware/startup_timeline.h"
#include "headend/hardware/bus.h"
#include "headend/kernel/flash.h"
#include "platform/chassis.h"

namespace headend {

class Chassis {
 public:
  static constexpr int kPanelLines = 4;
  // Send tasks have 212. What starts a slot comes after everything that keeps others running.
  static constexpr int kRootPriority = 100;
  static constexpr int kSlotStartPriority = 250;

  struct Slot {
    bool occupied = false;
    chassis::card* descriptor = nullptr;
    bool registrationFailed = false;  // no memory for a descriptor
    bool initReturned = false;
    std::optional<Nanos> initTook;
    std::array<std::string, kPanelLines> lcd;  // what the slot's own tasks printed
    StartupTimeline timeline;
    bool savePending = false;  // asked for before the card was inserted
    std::uint64_t saves = 0;
    int typeCode = 0;
    std::array<int, 2> bus{};
  };

  Chassis(Kernel& kernel, Bus& bus, Flash& flash, Log& log);

  // A card of another kind, which needs no start; before `start`.
  void plugIn(chassis::card& card);

  // Starts the cards of these slots (0..5): registration first, then each slot's `init`.
  void start(const std::vector<int>& slots);

  // Starts the calibration service once the cards are registered.
  void serveCalibration() { servesCalibration_ = true; }

  const Slot& slot(int number) const { return slots_[static_cast<std::size_t>(number)]; }
  StartupTimeline& timeline(int number) { return slots_[static_cast<std::size_t>(number)].timeline; }
  bool saveFailed() const { return saveFailed_; }
  void onInitReturned(std::function<void(int slot)> hook) { onInitReturned_ = std::move(hook); }

  // Calls the cards' routines for the auxiliary clock, in interrupt context, for slots whose start-up has
  // returned.
  void auxiliaryClock();

  // The services of platform/chassis.h.
  void cardInsert(chassis::card* card);
  int save(u8 number);
  void configureBus(u8 slot, int arg1, int arg2) { slots_[slot].bus = {arg1, arg2}; }
  void setCardType(u8 slot, int typeCode) { slots_[slot].typeCode = typeCode; }
  // A line of the panel that a slot's own task prints.
  void noteLine(int line, std::string text);

  // A variable of a slot's card that reads a text. Cards share the buffer of their texts, so this keeps
  // others away from it until it is copied.
  std::string readText(int number, u32 id);

 private:
  void startSlot(int number);

  Kernel& kernel_;
  Bus& bus_;
  Flash& flash_;
  Log& log_;
  std::array<Slot, MAX_BOARD_NUM> slots_;
  std::function<void(int)> onInitReturned_;
  bool saveFailed_ = false;
  bool servesCalibration_ = false;
};

}  // namespace headend
