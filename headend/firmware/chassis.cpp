#include "headend/firmware/chassis.h"

#include <fmt/format.h>

#include <algorithm>

#include "card/QamInit.h"
#include "card/qamVar.h"
#include "headend/firmware/reading_turn.h"
#include "hw/ad9775_ctrl.h"
#include "platform/address_word.h"
#include "platform/kernel.h"

namespace headend {

Chassis::Chassis(Kernel& kernel, Bus& bus, Flash& flash, Log& log)
    : kernel_(kernel), bus_(bus), flash_(flash), log_(log) {}

void Chassis::plugIn(chassis::card& card) {
  cardInsert(&card);
  slots_[card.slotNo].initReturned = true;
}

void Chassis::start(const std::vector<int>& slots) {
  for (const int number : slots) slots_[static_cast<std::size_t>(number)].occupied = true;
  semQamVar = kernel_.createMutex("semQamVar");
  kernel_.spawn("tRoot", kRootPriority, [this, slots] {
    for (const int number : slots) {
      Slot& slot = slots_[static_cast<std::size_t>(number)];
      slot.timeline.begin("registration", kernel_.now(), bus_.accesses(number));
      Qam_Init(static_cast<u8>(number));
      slot.timeline.end(kernel_.now(), bus_.accesses(number));
      slot.registrationFailed = slot.descriptor == nullptr;
    }
    if (servesCalibration_) Ad9775Ctrl_Init(0);
    for (const int number : slots) {
      kernel_.spawn(
          fmt::format("tSlot{}", number + 1), kSlotStartPriority, [this, number] { startSlot(number); },
          number);
    }
  });
}

void Chassis::startSlot(int number) {
  Slot& slot = slots_[static_cast<std::size_t>(number)];
  if (slot.descriptor == nullptr) return;
  const Nanos began = kernel_.now();
  slot.timeline.begin("bitstream file", began, bus_.accesses(number));
  slot.descriptor->init(static_cast<u8>(number));
  slot.timeline.end(kernel_.now(), bus_.accesses(number));
  slot.initTook = kernel_.now() - began;
  slot.initReturned = true;
  if (onInitReturned_) onInitReturned_(number);
}

void Chassis::startStatusChecks(const std::vector<int>& slots, Nanos period,
                                const std::function<bool(int slot)>& runs) {
  if (period == 0) return;
  const int ticks = std::max(1, static_cast<int>(period * kernel_.settings().tickHz / kSecond));
  for (const int number : slots) {
    const auto check = [this, number, runs, ticks] {
      kernel_.delay(number * ticks / MAX_BOARD_NUM);  // slots are spread over the period
      for (;;) {
        kernel_.delay(ticks);
        const chassis::card* card = slot(number).descriptor;
        if (runs(number) && card->statusCheck != nullptr) card->statusCheck(static_cast<u8>(number));
      }
    };
    kernel_.spawn(fmt::format("tStatus{}", number + 1), kStatusPriority, check, number);
  }
}

void Chassis::auxiliaryClock() {
  for (int number = 0; number < MAX_BOARD_NUM; ++number) {
    const Slot& slot = slots_[static_cast<std::size_t>(number)];
    if (!slot.initReturned || slot.descriptor->auxClkIntRoutine == nullptr) continue;
    kernel_.interrupt("auxClkIntRoutine", number, slot.descriptor->auxClkIntRoutine, static_cast<u8>(number));
  }
}

void Chassis::cardInsert(chassis::card* card) {
  card->next = nullptr;
  chassis::card** link = &chassis::head;
  while (*link != nullptr) link = &(*link)->next;
  *link = card;

  Slot& slot = slots_[card->slotNo];
  slot.descriptor = card;
  if (slot.savePending) {
    slot.savePending = false;
    save(card->slotNo);
  }
}

int Chassis::save(u8 number) {
  Slot& slot = slots_[number];
  if (slot.descriptor == nullptr) {
    slot.savePending = true;
    return os::OK;
  }
  if (slot.descriptor->varPtr == nullptr) return os::ERROR;
  kernel_.spend(kernel_.settings().costs.save);
  const std::span<const u8> record(static_cast<const u8*>(slot.descriptor->varPtr), slot.descriptor->varSize);
  const std::string error = flash_.replace(fmt::format("/tffs0/para/card{}.dat", number + 1), record);
  if (error.empty()) {
    ++slot.saves;
    return os::OK;
  }
  saveFailed_ = true;
  log_.line(kernel_.now(), "headend", error);
  return os::ERROR;
}

void Chassis::noteLine(int line, std::string text) {
  const Task* task = kernel_.current();
  if (task == nullptr || task->slot < 0 || line < 0 || line >= kPanelLines) return;
  slots_[static_cast<std::size_t>(task->slot)].lcd[static_cast<std::size_t>(line)] = std::move(text);
}

std::string Chassis::readText(int number, u32 id) {
  const ReadingTurn turn;
  const u32 word =
      slots_[static_cast<std::size_t>(number)].descriptor->getVar(static_cast<u8>(number), 0, id, nullptr);
  const char* text = os::wordAddress<const char>(word);
  return text == nullptr ? "" : text;
}

}  // namespace headend
