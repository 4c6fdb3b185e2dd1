// The parts of the main firmware that a card needs: the card list, slot configuration, the panel's lines,
// parameter saving, and the start-up of the slots, each in its own task.
#pragma once

#include <boost/core/noncopyable.hpp>

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "base/bytes.h"
#include "card/qamVar.h"
#include "headend/firmware/log.h"
#include "headend/hardware/bus.h"
#include "headend/kernel/flash.h"
#include "platform/chassis.h"
#include "platform/kernel.h"

namespace headend {

// Cards share the buffers for read values: no other task may read between a card's answer and the copy. A
// task may lock again while it has the lock, as the cards themselves do.
class ReadingTurn : boost::noncopyable {
 public:
  ReadingTurn() { os::semTake(semQamVar, os::WAIT_FOREVER); }
  ~ReadingTurn() { os::semGive(semQamVar); }
};

class Chassis {
 public:
  static constexpr int kPanelLines = 4;
  // Send tasks have 212, the back end 220, the menu 230. The start-up task has a lower priority than all
  // tasks that keep other cards running.
  static constexpr int kRootPriority = 100;
  static constexpr int kSlotStartPriority = 250;
  static constexpr int kSavePriority = 232;  // of saving again
  static constexpr int kSaveAgain_s = 10;

  // A phase of a card's start-up on the modelled controller.
  struct Phase {
    std::string name;
    Nanos from = 0;
    Nanos until = 0;
    std::uint64_t busAccesses = 0;  // until the phase has ended, those before it
    bool runs = true;
  };
  struct Slot {
    bool occupied = false;
    chassis::card* descriptor = nullptr;
    bool registrationFailed = false;  // no memory for a descriptor
    bool initReturned = false;
    std::optional<Nanos> initTook;
    std::array<std::string, kPanelLines> lcd;  // what the slot's own tasks printed
    std::vector<Phase> startup;
    bool savePending = false;  // requested before the card was inserted
    std::uint64_t saves = 0;
    base::Bytes unsaved;    // the record that the last save should have stored; empty: it has stored it
    std::string saveError;  // why not
    bool recordKept() const { return unsaved.empty(); }
  };

  Chassis(Kernel& kernel, Bus& bus, Flash& flash, Say say)
      : kernel_(kernel), bus_(bus), flash_(flash), say_(std::move(say)) {}

  // Adds a card of another kind, which needs no start. Call before `start`.
  void plugIn(chassis::card& card);

  // Starts the cards of these slots (0..5): registration first, then the calibration service if it is wanted,
  // and each slot's `init`.
  void start(const std::vector<int>& slots, bool servesCalibration);

  const Slot& slot(int number) const { return slots_[static_cast<std::size_t>(number)]; }
  std::function<void(int slot)> onRecordKept = [](int /*slot*/) {};  // it is now, or no longer
  std::function<void(int slot)> onInitReturned = [](int /*slot*/) {};

  // A phase of a slot's start-up begins, and ends the previous one.
  void beginPhase(int number, std::string name);
  // The first access to a device begins the phase that starts the device.
  void accessed(int number, u32 offset);
  // So far; a phase that still runs is counted until now.
  std::vector<Phase> startup(int number) const;

  // Calls the cards' routines for the auxiliary clock, in interrupt context, for slots whose start-up has
  // returned.
  void auxiliaryClock();

  // The services of platform/chassis.h.
  void cardInsert(chassis::card* card);
  // Saves the slot's record. When that fails, the chassis keeps these bytes and saves them again every
  // kSaveAgain_s, until they or a newer record are stored. It never saves what the record is at that time:
  // while a client changes a channel, the channel's tables in the record are erased.
  int save(u8 number);
  // A line of the panel that a slot's own task prints.
  void noteLine(int line, std::string text);

  // Reads a text variable of a slot's card. Cards share one buffer for texts, so this blocks other readers
  // until the text is copied.
  std::string readText(int number, u32 id);

 private:
  Slot& at(int number) { return slots_[static_cast<std::size_t>(number)]; }
  void startSlot(int number);
  void endPhase(int number) { at(number).startup = startup(number); }
  int store(int number, const base::Bytes& record);
  void saveAgain();

  Kernel& kernel_;
  Bus& bus_;
  Flash& flash_;
  Say say_;
  std::array<Slot, MAX_BOARD_NUM> slots_;
  std::vector<Task*> savers_;
};

}  // namespace headend
