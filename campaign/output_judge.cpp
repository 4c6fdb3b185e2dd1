#include "campaign/output_judge.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "campaign/judge.h"

namespace campaign {
namespace {

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

bool areWhole(const std::vector<std::span<const u8>>& packets) {
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

}  // namespace

u64 hashOf(std::string_view text) {
  return std::hash<std::string_view>{}(text);
}
u64 hashOf(std::span<const u8> bytes) {
  return hashOf(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

OutputJudge::OutputJudge(Judge& judge, headend::Headend& headend, int slot, int port)
    : judge_(judge), slot_(slot), port_(port), headend_(headend), output_(headend.output(slot, port)) {
  const auto sink = headend.sinks.find({.slot = static_cast<u16>(slot), .port = static_cast<u16>(port)});
  next_ = sink != headend.sinks.end() ? sink->second.get() : nullptr;
  output_.setSink(this);
}

void OutputJudge::packet(std::span<const u8> packet) {
  if (next_ != nullptr) next_->packet(packet);
  const bool isPsi = output_.counts().psi != std::exchange(psi_, output_.counts().psi);
  ++packets_;
  isPsi ? stored(packet) : fromRouter(packet);
}

void OutputJudge::nullPackets(u64 count) {
  if (next_ != nullptr) next_->nullPackets(count);
}

void OutputJudge::flush() {
  if (next_ != nullptr) next_->flush();
  judge_.count("packets", std::exchange(packets_, 0));
  judge_.count("sections", std::exchange(sections_, 0));
}

const std::string& OutputJudge::error() const {
  static const std::string kNone;
  return next_ != nullptr ? next_->error() : kNone;
}

void OutputJudge::tablesChange() {
  output_.advance(headend_.kernel.now());  // what left before
  ++changes_;
}

void OutputJudge::uploaded(std::span<const u8> packet) {
  known_.insert(hashOfPacket(packet));
  if (packet[0] != mpeg::kSyncByte) judge_.explainViolation("psi_packet_without_sync");
}

void OutputJudge::rebuilt(const QamCardPara& record) {
  const auto store = storeOf(record, port_);
  nodes_ = store.size();
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

bool OutputJudge::isStopped() const {
  return judge_.explained().stopped[static_cast<std::size_t>(slot_)];
}

std::string OutputJudge::where() const {
  return fmt::format("channel {}.{}", slot_ + 1, port_ + 1);
}

void OutputJudge::wrong(std::span<const u8> packet, const char* what) {
  if (isStopped()) return;
  judge_.failed("packets are whole",
                fmt::format("{}: a packet with {}: {:02x}", where(), what, fmt::join(packet.first(12), " ")));
}

void OutputJudge::stored(std::span<const u8> packet) {
  const u16 pid = mpeg::pidOf(packet);
  if (!known_.contains(hashOfPacket(packet))) wrong(packet, "bytes that were never uploaded");
  Pid& state = psiPids_[pid];
  if (state.continuity && mpeg::continuityOf(packet) != ((*state.continuity + 1) & 0xF) && !isStopped())
    judge_.failed("continuity", fmt::format("{}, PID {:#x}: {} follows {}", where(), pid,
                                            mpeg::continuityOf(packet), *state.continuity));
  state.continuity = mpeg::continuityOf(packet);
  if (!state.sections) gather(pid, state);
  state.sections->push(packet);
  if (mpeg::startsUnit(packet)) state.changes = changes_;
}

void OutputJudge::gather(u16 pid, Pid& state) {
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
bool OutputJudge::isClean(u16 pid) const {
  for (u16 i = 0; i < kPidMapSize; ++i) {
    const chassis::RouterWords& words = headend_.router.position(slot_, port_, i);
    if (!chassis::isUsed(words) || chassis::outputPid(words) != pid) continue;
    const auto& cards = headend_.sources.cards();
    const auto card = cards.find(chassis::sourceSlot(words));
    if (card == cards.end() || chassis::sourcePort(words) >= card->second.inputs.size() ||
        !card->second.inputs[chassis::sourcePort(words)]->name().ends_with("cbr.ts") ||
        judge_.explained().lostInputs.contains(chassis::sourcePort(words)))
      return false;
  }
  return true;
}

// A jump is right where packets were dropped, the map changed or an input was lost meanwhile.
void OutputJudge::fromRouter(std::span<const u8> packet) {
  if (packet[0] != mpeg::kSyncByte) return wrong(packet, "no sync byte");
  Pid& state = routedPids_[mpeg::pidOf(packet)];
  const u64 dropped = output_.counts().dropped;
  const bool known = state.continuity && state.routes == routes_ && state.dropped == dropped;
  const auto expected = (state.continuity.value_or(0) + (mpeg::hasPayload(packet) ? 1 : 0)) & 0xF;
  const bool repeats = !state.isRepeated && std::ranges::equal(packet, state.last);
  if (known && mpeg::continuityOf(packet) != expected && !repeats && !mpeg::announcesDiscontinuity(packet) &&
      !isStopped() && isClean(mpeg::pidOf(packet)))
    judge_.failed("continuity",
                  fmt::format("{}, routed PID {:#x}: {} follows {}", where(), mpeg::pidOf(packet),
                              mpeg::continuityOf(packet), *state.continuity));
  state.isRepeated = repeats;
  state.continuity = mpeg::continuityOf(packet);
  state.routes = routes_;
  state.dropped = dropped;
  std::copy_n(packet.begin(), state.last.size(), state.last.begin());
}

}  // namespace campaign
