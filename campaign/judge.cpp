#include "campaign/judge.h"

#include <fmt/format.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "campaign/host_faults.h"
#include "headend/hardware/faults.h"
#include "ts/qamIntr.h"
#include "ts/qamPidMap.h"
#include "ts/qamPsi.h"

namespace campaign {
namespace {

Judge* current = nullptr;

std::span<const u8> bytesOf(std::string_view text) {
  return {reinterpret_cast<const u8*>(text.data()), text.size()};
}

std::string recordFile(int slot) {
  return fmt::format("flash/para/card{}.dat", slot + 1);
}
// Empty without one.
std::string contentOfRecord(int slot) {
  std::ifstream file(recordFile(slot), std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

}  // namespace

Judge* judge() {
  return current;
}

Judge::Judge(headend::Headend& headend) : headend_(headend) {
  current = this;
  for (const int slot : headend.options.slots) {
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port)
      channel(slot, port).output = std::make_unique<OutputJudge>(*this, headend, slot, port);
  }
  flashFaults().onWrite = [this](std::string_view file, std::string_view content) { wrote(file, content); };
  flashFaults().onRename = [this](std::string_view file) {
    for (const int slot : headend_.options.slots) {
      Card& card = cards_[static_cast<std::size_t>(slot)];
      if (file == recordFile(slot)) card.kept = card.pending;
    }
  };
}

Judge::~Judge() {
  current = nullptr;
}

void Judge::begin(const History& history) {
  for (const Step& step : history.steps) {
    if (step.kind == Step::Kind::kFault) explainFault(step.what);
    explained_.startFails |= !history.preparation->isRunning &&
                             (step.kind == Step::Kind::kFlash || step.kind == Step::Kind::kHeap);
  }
  for (const int slot : headend_.options.slots) {
    const std::string content = contentOfRecord(slot);
    cards_[static_cast<std::size_t>(slot)].kept =
        content.empty() ? std::nullopt : std::optional(hashOf(content));
  }
  if (history.preparation->isRunning && history.length > 0) heap_ = heapBesideLists();
}

void Judge::failed(const std::string& invariant, const std::string& text) {
  if (std::ranges::count(failures_, invariant, &Failure::invariant) < 2)
    failures_.push_back(
        {invariant, fmt::format("at {:.6f} s: {}", static_cast<double>(headend_.kernel.now()) / 1e9, text)});
}

const QamCardPara* Judge::record(int slot) const {
  const chassis::card* descriptor = headend_.chassis.slot(slot).descriptor;
  return descriptor == nullptr ? nullptr : static_cast<const QamCardPara*>(descriptor->varPtr);
}

void Judge::explainFault(const std::string& fault) {
  const std::string name = fault.substr(fault.find('.') + 1);
  const std::string part = name.substr(0, name.find('-'));
  if (name.ends_with(headend::kInputLost)) {
    explained_.lostInputs.insert(name.front() - '1');
  } else if (part == "config") {
    explained_.stopped[static_cast<std::size_t>(fault.front() - '1')] = true;
    explained_.violations.insert("");
  } else {
    explained_.violations.insert(part == "clock" ? "clock_generator" : part);
    if (name.ends_with("scl-low"))
      explained_.violations.insert("watchdog_not_kicked");  // it waits for the line
  }
}

bool Judge::mayHang() const {
  const bool hasFailed = flashFaults().injected() > 0 || headend_.heap.failures() > 0;
  return std::ranges::count(explained_.stopped, true) > 0 || (explained_.startFails && hasFailed);
}

void Judge::expectRecord(int slot, const std::optional<u64>& hash) {
  ++checks_["records found"];
  if (recordHash(slot) != hash) failed("the record is found again", fmt::format("slot {}", slot + 1));
}

void Judge::alarm(u8 slot, u8 port, u16 type, std::string_view text, bool isRaised) {
  const std::size_t digit = text.find("h.");  // "Ch.1 Error", "qam card 1 ch.1 input OK!"
  const std::tuple<int, int, int, char> key{slot, port, type,
                                            digit < text.size() - 2 ? text[digit + 2] : '0'};
  ++checks_["alarms"];
  const bool inTurn = isRaised ? alarms_.insert(key).second : alarms_.erase(key) == 1;
  if (!inTurn)
    failed("alarms are raised and cleared in turn",
           fmt::format("type {} of {}.{}, {}: {}", type, slot + 1, port + 1,
                       isRaised ? "raised again" : "not raised", text));
}

void Judge::unlocksMap(u8 slot, u8 port, bool begins) {
  channel(slot, port).mapChanges = begins;
  if (!begins) channel(slot, port).mapPastLock = false;
}

void Judge::tablesChange(u8 slot, u8 port) {
  channel(slot, port).output->tablesChange();
  channel(slot, port).tablesPastLock = false;
}

void Judge::routed(u8 slot, u8 port) {
  if (const auto& output = channel(slot, port).output) output->routed();
}

int Judge::slotOf(const QamCardPara* ptr) const {
  const auto& slots = headend_.options.slots;
  return *std::ranges::find_if(slots, [&](int slot) { return record(slot) == ptr; });
}

// The card takes chunks without a lock too, and uses them after the next one.
void Judge::stores(const QamCardPara* ptr, u8 port, const set_psi_pkt& chunk) {
  const int slot = slotOf(ptr);
  if (qam_psi_lock_status[slot][port] == 0) channel(slot, port).tablesPastLock = true;
  const u8* packet = reinterpret_cast<const u8*>(&chunk) + offsetof(set_psi_pkt, psi_pkt);
  for (int i = 0; i < chunk.this_num; ++i, packet += kTsPacketSize)
    channel(slot, port).output->uploaded({packet, kTsPacketSize});
}

void Judge::storesMap(const QamCardPara* ptr, u8 port) {
  const int slot = slotOf(ptr);
  if (qam_pidmap_lock_status[slot][port] == 0) channel(slot, port).mapPastLock = true;
}

// What goes on the air after a change must outlast a power cut: it was saved before.
void Judge::rebuilds(u8 slot) {
  const QamCardPara* para = record(slot);
  const auto& place = headend_.chassis.slot(slot);
  if (para == nullptr || !place.initReturned || !place.recordKept()) return;
  ++checks_["rebuilds"];
  if (cards_[slot].kept != hashOf(std::span(reinterpret_cast<const u8*>(para), sizeof *para)))
    failed("what goes on the air is saved", fmt::format("slot {}", slot + 1));
}

void Judge::rebuilt(u8 slot, u8 port) {
  const QamCardPara* para = record(slot);
  if (para == nullptr) return;
  channel(slot, port).output->rebuilt(*para);
  Card& card = cards_[slot];
  if (std::exchange(card.isKnown, true)) return;
  // What the card takes for raised when it starts.
  for (int bit = 0; bit < MAX_QAM_OUT_NUM; ++bit) {
    if ((para->qam_para.status >> bit & 1) != 0) alarms_.insert({slot, 0, 769, static_cast<char>('1' + bit)});
  }
  for (u8 each = 0; each < MAX_QAM_OUT_NUM; ++each) {
    for (const u16 type : {u16{770}, u16{771}}) {
      if (headend_.alarms.find({slot, each, type}) != nullptr) alarms_.insert({slot, each, type, '0'});
    }
  }
}

// A record goes to its file as it is in memory at one instant, or as it was when an earlier save failed.
void Judge::wrote(std::string_view file, std::string_view content) {
  for (const int slot : headend_.options.slots) {
    if (!file.starts_with(recordFile(slot))) continue;
    const QamCardPara* para = record(slot);
    const auto& unsaved = headend_.chassis.slot(slot).unsaved;
    const auto bytes = bytesOf(content);
    const bool isWhole =
        bytes.size() == sizeof *para &&
        ((para != nullptr &&
          std::ranges::equal(bytes, std::span(reinterpret_cast<const u8*>(para), sizeof *para))) ||
         std::ranges::equal(bytes, unsaved));
    ++checks_["records written"];
    if (!isWhole)
      failed("the record is whole",
             fmt::format("slot {}: {} bytes that were never in memory together", slot + 1, bytes.size()));
    cards_[static_cast<std::size_t>(slot)].pending = hashOf(content);
    noteWritten(slot);
  }
}

void Judge::examine(bool isQuiet) {
  for (const int slot : headend_.options.slots) {
    headend_.card(slot).advanceOutputs(headend_.kernel.now());
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      channel(slot, port).output->flush();
      examineRouter(slot, port);
    }
    examineFile(slot, isQuiet);
  }
  for (const auto& [kind, count] : headend_.violations.counts()) {
    const auto explains = [&kind = kind](const std::string& prefix) { return kind.starts_with(prefix); };
    if (std::ranges::none_of(explained_.violations, explains))
      failed("no violation", fmt::format("{} {}", kind, count));
  }
  for (const auto& check : headend_.observation.failedChecks()) {
    // Registration compares a slot with the number of channels.
    if (check.text != "slotNo<MAX_QAM_OUT_NUM") failed("no failed check", check.unit + ": " + check.text);
  }
  if (!headend_.kernel.fatalError().empty()) failed("no forbidden call", headend_.kernel.fatalError());
  if (!isQuiet) return;
  examineTasks();
  if (heap_) ++checks_["heap"];
  if (heap_ && *heap_ != heapBesideLists())
    failed("no leak", fmt::format("{} bytes beside the send lists, {} before", heapBesideLists(), *heap_));
}

void Judge::examineFile(int slot, bool isQuiet) {
  const Card& card = cards_[static_cast<std::size_t>(slot)];
  if (!card.kept) return;
  std::string content = contentOfRecord(slot);
  ++checks_["record files"];
  if (hashOf(content) != *card.kept) {
    failed("the record is old or new",
           fmt::format("the file of slot {} has {} bytes that are neither", slot + 1, content.size()));
    return;
  }
  const QamCardPara* para = record(slot);
  if (!isQuiet || para == nullptr || content.size() != sizeof *para || !headend_.runs(slot)) return;
  // What is saved when all is quiet: all but a part that a client still changes, and the alarms' state, which
  // only goes with another change.
  auto& saved = *reinterpret_cast<QamCardPara*>(content.data());
  saved.qam_para.status = para->qam_para.status;
  for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
    if (qam_psi_lock_status[slot][port] != 0 || channel(slot, port).tablesPastLock) {
      std::ranges::copy(para->psiPkt[port], saved.psiPkt[port]);
      std::ranges::copy(para->pktNum[port], saved.pktNum[port]);
      std::ranges::copy(para->Interval[port], saved.Interval[port]);
    }
    if (qam_pidmap_lock_status[slot][port] != 0 || channel(slot, port).mapPastLock) {
      std::ranges::copy(para->pidMap[port], saved.pidMap[port]);
      saved.pidMapNum[port] = para->pidMapNum[port];
    }
  }
  const auto* a = reinterpret_cast<const u8*>(para);
  const auto* b = reinterpret_cast<const u8*>(&saved);
  const auto* end = a + sizeof *para;
  if (const auto [at, other] = std::mismatch(a, end, b); at != end)
    failed("the record is saved",
           fmt::format("slot {}: the file differs from memory at byte {}: {:#x}, not {:#x}", slot + 1, at - a,
                       *other, *at));
}

void Judge::examineRouter(int slot, int port) {
  const QamCardPara* para = record(slot);
  if (para == nullptr || !headend_.runs(slot) || qam_pidmap_lock_status[slot][port] != 0 ||
      channel(slot, port).mapChanges || channel(slot, port).mapPastLock)
    return;
  ++checks_["router maps"];
  for (u16 i = 0; i < kPidMapSize; ++i) {
    const pidmap_t& entry = para->pidMap[port][i];
    const auto expected = i < para->pidMapNum[port] ? chassis::routerWords(entry.src_slotNo, entry.src_port,
                                                                           entry.src_pid, entry.dst_pid)
                                                    : chassis::kUnusedPosition;
    if (headend_.router.position(slot, port, i) == expected) continue;
    failed("the router has the record's map",
           fmt::format("channel {}.{}, position {}", slot + 1, port + 1, i));
    return;
  }
}

void Judge::examineTasks() {
  ++checks_["tasks"];
  for (const auto& parked : headend_.observation.parkedTasks()) {
    if (parked.still && !mayHang()) failed("every wait ends", parked.task + " polls " + parked.reg);
  }
  for (const auto& job : headend_.automaticOperator.jobs()) {
    if (!job.ended && !mayHang()) failed("every wait ends", "the command " + job.text);
  }
  if (semQamVar != nullptr && !semQamVar->available && !mayHang())
    failed("every wait ends",
           "semQamVar is held by " +
               (semQamVar->owner != nullptr ? semQamVar->owner->name : std::string("nobody")));
  for (const int slot : headend_.options.slots) {
    if (!headend_.runs(slot) && !mayHang())
      failed("the card runs",
             fmt::format("slot {}: {}", slot + 1, protocol::nameOf(headend_.state(slot)).words.english));
  }
}

std::size_t Judge::heapBesideLists() const {
  std::size_t lists = 0;
  for (const auto& each : channels_) lists += each.output != nullptr ? each.output->nodes() : 0;
  return headend_.heap.used() - lists * 2 * sizeof(void*);
}

}  // namespace campaign

// ---- The module's calls ----

extern "C" {

using campaign::judge;

void __real_AddAnAlarm(u8, u8, u16, const char*, const char*, const char*, const char*, const char*,
                       const char*);
void __wrap_AddAnAlarm(u8 slot, u8 port, u16 type, const char* zhTitle, const char* zhContent,
                       const char* enTitle, const char* enContent, const char* zhTrap, const char* enTrap) {
  if (judge() != nullptr) judge()->alarm(slot, port, type, enContent, true);
  __real_AddAnAlarm(slot, port, type, zhTitle, zhContent, enTitle, enContent, zhTrap, enTrap);
}

void __real_DelAnAlarm(u8, u8, u16, const char*, const char*);
void __wrap_DelAnAlarm(u8 slot, u8 port, u16 type, const char* zhTrap, const char* enTrap) {
  if (judge() != nullptr) judge()->alarm(slot, port, type, enTrap, false);
  __real_DelAnAlarm(slot, port, type, zhTrap, enTrap);
}

int __real_set_one_map(u8, u8, u16, const u16*);
int __wrap_set_one_map(u8 slot, u8 port, u16 index, const u16* words) {
  if (judge() != nullptr) judge()->routed(slot, port);
  return __real_set_one_map(slot, port, index, words);
}

int __real_QamPidMapSetLock(u8, u8, QamCardPara*, u32);
int __wrap_QamPidMapSetLock(u8 slot, u8 port, QamCardPara* ptr, u32 isLocked) {
  const bool changes = (qam_pidmap_lock_status[slot][port] != 0) != (isLocked != 0);
  if (judge() != nullptr && changes) judge()->unlocksMap(slot, port, isLocked == 0);
  const int result = __real_QamPidMapSetLock(slot, port, ptr, isLocked);
  if (judge() != nullptr && changes) judge()->unlocksMap(slot, port, false);
  return result;
}

int __real_QamSavePidMap(u8, QamCardPara*, const set_pid_map_t*);
int __wrap_QamSavePidMap(u8 port, QamCardPara* ptr, const set_pid_map_t* v) {
  if (judge() != nullptr) judge()->storesMap(ptr, port);
  return __real_QamSavePidMap(port, ptr, v);
}

int __real_QamPsiSetLock(u8, u8, QamCardPara*, u32);
int __wrap_QamPsiSetLock(u8 slot, u8 port, QamCardPara* ptr, u32 isLocked) {
  const bool changes = (qam_psi_lock_status[slot][port] != 0) != (isLocked != 0);
  const int result = __real_QamPsiSetLock(slot, port, ptr, isLocked);
  if (judge() != nullptr && changes) judge()->tablesChange(slot, port);
  return result;
}

int __real_QamSavePsiPkt(u8, QamCardPara*, const set_psi_pkt*);
int __wrap_QamSavePsiPkt(u8 port, QamCardPara* ptr, const set_psi_pkt* v) {
  if (judge() != nullptr) judge()->stores(ptr, port, *v);
  return __real_QamSavePsiPkt(port, ptr, v);
}

void __real_QamSetPsiInterval(u8, u8);
void __wrap_QamSetPsiInterval(u8 slot, u8 port) {
  if (judge() != nullptr) judge()->rebuilds(slot);
  __real_QamSetPsiInterval(slot, port);
  if (judge() != nullptr) judge()->rebuilt(slot, port);
}

}  // extern "C"
