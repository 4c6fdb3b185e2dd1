#include "campaign/judge.h"

#include <fmt/format.h>

#include <algorithm>
#include <bitset>
#include <fstream>
#include <iterator>
#include <unordered_set>

#include "campaign/host_faults.h"
#include "headend/hardware/faults.h"
#include "mpeg/section.h"
#include "ts/qamIntr.h"
#include "ts/qamPidMap.h"
#include "ts/qamPsi.h"

namespace campaign {
namespace {

Judge* current = nullptr;

// Compared only within this program.
u64 hashOf(std::string_view text) {
  return std::hash<std::string_view>{}(text);
}
u64 hashOf(std::span<const u8> bytes) {
  return hashOf(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}
std::span<const u8> bytesOf(std::string_view text) {
  return {reinterpret_cast<const u8*>(text.data()), text.size()};
}

// As it is sent, but for the continuity counter.
u64 hashOfPacket(std::span<const u8> packet) {
  mpeg::Packet copy{};
  std::copy_n(packet.begin(), copy.size(), copy.begin());
  mpeg::setContinuity(copy, 0);
  return hashOf(std::span<const u8>(copy));
}

// Those that the card sends: the store ends at the first free entry.
std::span<const outPsiPkt_t> storeOf(const QamCardPara& record, int port) {
  const auto& store = record.psiPkt[port];
  const auto* end = std::ranges::find_if(
      store, [](const auto& each) { return each.pid >= kNullPid || each.psiType >= PSINUM; });
  return {std::begin(store), end};
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

// ---- What an output sends ----

// The packets of one output, in order. Between two of them on a PID, the continuity counter increases by one;
// the sections are whole, but for one that an upload cuts. A store may itself hold parts of sections: the
// record was saved while a client had locked the channel, or a client uploaded them. Then the card sends just
// these packets.
class Judge::Channel final : public headend::PacketSink {
 public:
  Channel(Judge& judge, int slot, int port, headend::PacketSink* next)
      : judge_(judge), slot_(slot), port_(port), next_(next), output_(judge.headend_.output(slot, port)) {}

  void packet(std::span<const u8> packet) override {
    if (next_ != nullptr) next_->packet(packet);
    const bool isPsi = output_.counts().psi != std::exchange(psi_, output_.counts().psi);
    ++packets_;
    isPsi ? stored(packet) : fromRouter(packet);
  }
  void nullPackets(u64 count) override {
    if (next_ != nullptr) next_->nullPackets(count);
  }
  void flush() override {
    if (next_ != nullptr) next_->flush();
    judge_.checks_["packets"] += std::exchange(packets_, 0);
    judge_.checks_["sections"] += std::exchange(sections_, 0);
  }
  const std::string& error() const override {
    static const std::string kNone;
    return next_ != nullptr ? next_->error() : kNone;
  }

  void tablesChange() {
    output_.advance(judge_.headend_.kernel.now());  // what left before
    isPastLock = false;
    ++changes_;
  }
  void routed() { ++routes_; }
  void uploaded(std::span<const u8> packet) {
    known_.insert(hashOfPacket(packet));
    if (packet[0] != mpeg::kSyncByte) judge_.explained_.violations.insert("psi_packet_without_sync");
  }
  void rebuilt(const QamCardPara& record) {
    const auto store = storeOf(record, port_);
    nodes = store.size();
    std::map<u16, std::set<u8>> types;
    std::map<std::pair<u16, u8>, std::vector<std::span<const u8>>> sent;
    for (const outPsiPkt_t& entry : store) {
      uploaded(entry.psiData);
      const u16 pid = mpeg::pidOf(entry.psiData);
      types[pid].insert(entry.psiType);
      sent[{pid, entry.psiType}].emplace_back(entry.psiData);
    }
    for (const auto& [place, packets] : sent) {
      if (!areWhole(packets)) partial_.set(place.first);
    }
    for (const auto& [pid, all] : types) {
      const bool shared =
          std::ranges::all_of(all, [pid = pid](u8 type) { return kPsiTables[type].pid == pid; });
      if (all.size() > 1 && !shared) partial_.set(pid);
    }
  }

  std::size_t nodes = 0;       // of the send lists
  bool isPastLock = false;     // a client has written tables without the lock, since the last one
  bool isMapPastLock = false;  // or entries of the map
  bool mapChanges = false;     // from the end of its lock until the router has it

 private:
  struct Pid {
    std::optional<mpeg::SectionGatherer> sections;
    std::optional<u8> continuity;
    u64 changes = 0;  // of the tables, when the last section began
    u64 routes = 0;
    u64 dropped = 0;
    mpeg::Packet last{};
    bool isRepeated = false;  // the standard allows one packet to be sent twice
  };

  static bool areWhole(const std::vector<std::span<const u8>>& packets) {
    bool whole = true;
    mpeg::SectionGatherer gatherer([&](std::span<const u8> section) { whole &= mpeg::crc32(section) == 0; },
                                   [&](mpeg::Loss, std::optional<u8>) { whole = false; });
    for (unsigned i = 0; i < 2 * packets.size(); ++i) {  // the carousel repeats
      mpeg::Packet packet{};
      std::ranges::copy(packets[i % packets.size()], packet.begin());
      mpeg::setContinuity(packet, i);
      whole &= packet[0] == mpeg::kSyncByte;
      gatherer.push(packet);
    }
    gatherer.finish();
    return whole;
  }

  // Its FPGA may have lost its configuration.
  bool isStopped() const { return judge_.explained_.stopped[static_cast<std::size_t>(slot_)]; }

  std::string where() const { return fmt::format("channel {}.{}", slot_ + 1, port_ + 1); }

  void wrong(std::span<const u8> packet, const char* what) {
    if (isStopped()) return;
    judge_.failed("packets are whole", fmt::format("{}: a packet with {}: {:02x}", where(), what,
                                                   fmt::join(packet.first(12), " ")));
  }

  void stored(std::span<const u8> packet) {
    const u16 pid = mpeg::pidOf(packet);
    if (!known_.contains(hashOfPacket(packet))) wrong(packet, "bytes that nobody has uploaded");
    Pid& state = psiPids_[pid];
    if (state.continuity && mpeg::continuityOf(packet) != ((*state.continuity + 1) & 0xF) && !isStopped())
      judge_.failed("continuity", fmt::format("{}, PID {:#x}: {} follows {}", where(), pid,
                                              mpeg::continuityOf(packet), *state.continuity));
    state.continuity = mpeg::continuityOf(packet);
    if (!state.sections) gather(pid, state);
    state.sections->push(packet);
    if (mpeg::startsUnit(packet)) state.changes = changes_;
  }

  void gather(u16 pid, Pid& state) {
    const auto bad = [this, pid, &state](const std::string& what) {
      if (partial_[pid] || state.changes != changes_ || isStopped()) return;
      judge_.failed("sections are whole", fmt::format("{}, PID {:#x}: {}", where(), pid, what));
    };
    state.changes = changes_;
    state.sections.emplace(
        [this, bad](std::span<const u8> section) {
          ++sections_;
          if (mpeg::crc32(section) != 0)
            bad(fmt::format("a section of table {:#x} with a wrong CRC", section[0]));
        },
        [bad](mpeg::Loss loss, std::optional<u8> table) {
          bad(fmt::format("a section of table {:#x} is lost ({})", table.value_or(0xFF),
                          static_cast<int>(loss)));
        });
  }

  // A stream without damage.
  bool isClean(u16 pid) const {
    for (u16 i = 0; i < kPidMapSize; ++i) {
      const chassis::RouterWords& words = judge_.headend_.router.position(slot_, port_, i);
      if (!chassis::isUsed(words) || chassis::outputPid(words) != pid) continue;
      const auto& cards = judge_.headend_.sources.cards();
      const auto card = cards.find(chassis::sourceSlot(words));
      if (card == cards.end() || chassis::sourcePort(words) >= card->second.inputs.size() ||
          !card->second.inputs[chassis::sourcePort(words)]->name().ends_with("cbr.ts") ||
          judge_.explained_.lostInputs.contains(chassis::sourcePort(words)))
        return false;
    }
    return true;
  }

  // A jump is right where packets were dropped, the map changed or an input was lost meanwhile.
  void fromRouter(std::span<const u8> packet) {
    if (packet[0] != mpeg::kSyncByte) return wrong(packet, "no sync byte");
    Pid& state = routedPids_[mpeg::pidOf(packet)];
    const u64 dropped = output_.counts().dropped;
    const bool known = state.continuity && state.routes == routes_ && state.dropped == dropped;
    const auto expected = (state.continuity.value_or(0) + (mpeg::hasPayload(packet) ? 1 : 0)) & 0xF;
    const bool repeats = !state.isRepeated && std::ranges::equal(packet, state.last);
    if (known && mpeg::continuityOf(packet) != expected && !repeats &&
        !mpeg::announcesDiscontinuity(packet) && !isStopped() && isClean(mpeg::pidOf(packet)))
      judge_.failed("continuity",
                    fmt::format("{}, routed PID {:#x}: {} follows {}", where(), mpeg::pidOf(packet),
                                mpeg::continuityOf(packet), *state.continuity));
    state.isRepeated = repeats;
    state.continuity = mpeg::continuityOf(packet);
    state.routes = routes_;
    state.dropped = dropped;
    std::copy_n(packet.begin(), state.last.size(), state.last.begin());
  }

  Judge& judge_;
  int slot_;
  int port_;
  headend::PacketSink* next_;
  headend::Multiplexer& output_;
  std::unordered_set<u64> known_;  // packets that were in the store
  std::bitset<kPids> partial_;     // PIDs on which the store once held parts of sections
  std::map<u16, Pid> psiPids_, routedPids_;
  u64 psi_ = 0;
  u64 changes_ = 0;  // locks and unlocks of the tables
  u64 routes_ = 0;
  u64 packets_ = 0;
  u64 sections_ = 0;
};

// ---- The judge ----

Judge::Judge(headend::Headend& headend) : headend_(headend) {
  current = this;
  for (const int slot : headend.options.slots) {
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      const auto sink = headend.sinks.find({.slot = static_cast<u16>(slot), .port = static_cast<u16>(port)});
      auto& channel = channels_[indexOf(slot, port)];
      channel = std::make_unique<Channel>(*this, slot, port,
                                          sink != headend.sinks.end() ? sink->second.get() : nullptr);
      headend.output(slot, port).setSink(channel.get());
    }
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
  channel(slot, port)->mapChanges = begins;
  if (!begins) channel(slot, port)->isMapPastLock = false;
}

void Judge::tablesChange(u8 slot, u8 port) {
  channel(slot, port)->tablesChange();
}

void Judge::routed(u8 slot, u8 port) {
  if (Channel* each = channel(slot, port)) each->routed();
}

int Judge::slotOf(const QamCardPara* ptr) const {
  const auto& slots = headend_.options.slots;
  return *std::ranges::find_if(slots, [&](int slot) { return record(slot) == ptr; });
}

// The card takes chunks without a lock too, and uses them after the next one.
void Judge::stores(const QamCardPara* ptr, u8 port, const set_psi_pkt& chunk) {
  const int slot = slotOf(ptr);
  if (qam_psi_lock_status[slot][port] == 0) channel(slot, port)->isPastLock = true;
  const u8* packet = reinterpret_cast<const u8*>(&chunk) + offsetof(set_psi_pkt, psi_pkt);
  for (int i = 0; i < chunk.this_num; ++i, packet += kTsPacketSize)
    channel(slot, port)->uploaded({packet, kTsPacketSize});
}

void Judge::storesMap(const QamCardPara* ptr, u8 port) {
  const int slot = slotOf(ptr);
  if (qam_pidmap_lock_status[slot][port] == 0) channel(slot, port)->isMapPastLock = true;
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
  channel(slot, port)->rebuilt(*para);
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
      channel(slot, port)->flush();
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
    if (qam_psi_lock_status[slot][port] != 0 || channel(slot, port)->isPastLock) {
      std::ranges::copy(para->psiPkt[port], saved.psiPkt[port]);
      std::ranges::copy(para->pktNum[port], saved.pktNum[port]);
      std::ranges::copy(para->Interval[port], saved.Interval[port]);
    }
    if (qam_pidmap_lock_status[slot][port] != 0 || channel(slot, port)->isMapPastLock) {
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
      channel(slot, port)->mapChanges || channel(slot, port)->isMapPastLock)
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
    if (parked.still && !mayHang()) failed("nobody waits forever", parked.task + " polls " + parked.reg);
  }
  for (const auto& job : headend_.automaticOperator.jobs()) {
    if (!job.ended && !mayHang()) failed("nobody waits forever", "the command " + job.text);
  }
  if (semQamVar != nullptr && !semQamVar->available && !mayHang())
    failed("nobody waits forever",
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
  for (const auto& each : channels_) lists += each != nullptr ? each->nodes : 0;
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
