#include "headend/firmware/chassis.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "card/QamInit.h"
#include "headend/hardware/card_registers.h"
#include "hw/ad9775_ctrl.h"
#include "platform/address_word.h"

namespace headend {

namespace {

// The register that a phase of the start-up accesses first.
struct DevicePhase {
  u32 first;
  const char* name;
};
constexpr DevicePhase kDevicePhases[] = {
    {offsetOf("nrst"), "modulator reset"},
    {offsetOf("cdce925_sda"), "clock generator"},
    {offsetOf("ad9775_1_rst"), "DAC calibration"},
    {offsetOf("ad7414_sda"), "temperature sensor 1"},
    {offsetOf("ext_ad7414_sda"), "temperature sensor 2"},
    {offsetOf("qam_mode"), "settings"},
};

}  // namespace

void Chassis::plugIn(chassis::card& card) {
  cardInsert(&card);
  slots_[card.slotNo].initReturned = true;
}

// ---- Start-up ----

void Chassis::start(const std::vector<int>& slots, bool servesCalibration) {
  for (const int number : slots) at(number).occupied = true;
  semQamVar = kernel_.createMutex("semQamVar");
  kernel_.spawn("tSaveAgain", kSavePriority, [this] { saveAgain(); });
  kernel_.spawn("tRoot", kRootPriority, [this, slots, servesCalibration] {
    for (const int number : slots) {
      beginPhase(number, "registration");
      Qam_Init(static_cast<u8>(number));
      endPhase(number);
      at(number).registrationFailed = slot(number).descriptor == nullptr;
    }
    if (servesCalibration) Ad9775Ctrl_Init(0);
    for (const int number : slots) {
      const std::string name = fmt::format("tSlot{}", number + 1);
      kernel_.spawn(
          name, kSlotStartPriority, [this, number] { startSlot(number); }, number);
    }
  });
}

void Chassis::startSlot(int number) {
  Slot& slot = at(number);
  if (slot.descriptor == nullptr) return;
  const Nanos began = kernel_.now();
  beginPhase(number, "bitstream file");
  slot.descriptor->init(static_cast<u8>(number));
  endPhase(number);
  slot.initTook = kernel_.now() - began;
  slot.initReturned = true;
  onInitReturned(number);
}

std::vector<Chassis::Phase> Chassis::startup(int number) const {
  std::vector<Phase> phases = slot(number).startup;
  if (phases.empty() || !phases.back().runs) return phases;
  phases.back().until = kernel_.now();
  phases.back().busAccesses = bus_.accesses(number) - phases.back().busAccesses;
  phases.back().runs = false;
  return phases;
}

void Chassis::beginPhase(int number, std::string name) {
  endPhase(number);
  at(number).startup.push_back({std::move(name), kernel_.now(), kernel_.now(), bus_.accesses(number)});
}

void Chassis::accessed(int number, u32 offset) {
  std::vector<Phase>& phases = at(number).startup;
  const auto* found = std::ranges::find(kDevicePhases, offset, &DevicePhase::first);
  if (found == std::end(kDevicePhases) || phases.empty() || !phases.back().runs) return;
  if (std::ranges::count(phases, found->name, &Phase::name) > 0) return;
  beginPhase(number, found->name);
  // This access belongs to the new phase.
  --phases[phases.size() - 2].busAccesses;
  --phases.back().busAccesses;
}

void Chassis::auxiliaryClock() {
  for (int number = 0; number < MAX_BOARD_NUM; ++number) {
    if (!slot(number).initReturned) continue;
    const auto routine = slot(number).descriptor->auxClkIntRoutine;
    if (routine != nullptr) kernel_.interrupt("auxClkIntRoutine", number, routine, static_cast<u8>(number));
  }
}

void Chassis::cardInsert(chassis::card* card) {
  card->next = nullptr;
  chassis::card** link = &chassis::head;
  while (*link != nullptr) link = &(*link)->next;
  *link = card;

  Slot& slot = slots_[card->slotNo];
  slot.descriptor = card;
  if (std::exchange(slot.savePending, false)) save(card->slotNo);
}

int Chassis::save(u8 number) {
  Slot& slot = slots_[number];
  if (slot.descriptor == nullptr) {
    slot.savePending = true;
    return os::OK;
  }
  if (slot.descriptor->varPtr == nullptr) return os::ERROR;
  kernel_.spend(kernel_.settings().costs.save);
  const auto* record = static_cast<const u8*>(slot.descriptor->varPtr);
  return store(number, {record, record + slot.descriptor->varSize});
}

int Chassis::store(int number, const base::Bytes& record) {
  Slot& slot = at(number);
  const bool wasKept = slot.recordKept();
  const std::string error = flash_.replace(fmt::format("/tffs0/para/card{}.dat", number + 1), record);
  if (error.empty()) {
    ++slot.saves;
    slot.unsaved.clear();
    if (!wasKept) say_(fmt::format("the record of the card in slot {} is kept again", number + 1));
  } else {
    slot.unsaved = record;
    if (wasKept || error != slot.saveError)
      say_(fmt::format("the record of the card in slot {} is not kept; it is saved again every {} s: {}",
                       number + 1, kSaveAgain_s, error));
    kernel_.wakeFirst(savers_);
  }
  slot.saveError = error;
  if (wasKept != slot.recordKept()) onRecordKept(number);
  return error.empty() ? os::OK : os::ERROR;
}

void Chassis::saveAgain() {
  for (;;) {
    if (std::ranges::all_of(slots_, &Slot::recordKept)) kernel_.waitOn(savers_, os::WAIT_FOREVER);
    kernel_.delay(kSaveAgain_s * kernel_.settings().tickHz);
    for (int number = 0; number < MAX_BOARD_NUM; ++number) {
      if (slot(number).recordKept()) continue;
      kernel_.spend(kernel_.settings().costs.save);
      // Meanwhile the card may have saved a newer record.
      if (!slot(number).recordKept()) store(number, base::Bytes(slot(number).unsaved));
    }
  }
}

void Chassis::noteLine(int line, std::string text) {
  const Task* task = kernel_.current();
  if (task == nullptr || task->slot < 0 || line < 0 || line >= kPanelLines) return;
  at(task->slot).lcd[static_cast<std::size_t>(line)] = std::move(text);
}

std::string Chassis::readText(int number, u32 id) {
  const ReadingTurn turn;
  const u32 word = at(number).descriptor->getVar(static_cast<u8>(number), 0, id, nullptr);
  const char* text = os::wordAddress<const char>(word);
  return text == nullptr ? "" : text;
}

}  // namespace headend
