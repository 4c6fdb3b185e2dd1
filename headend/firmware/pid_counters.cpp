#include "headend/firmware/pid_counters.h"

#include <algorithm>

#include "platform/wire.h"
#include "protocol/stream_records.h"

namespace headend {

PidCounters::PidCounters(Kernel& kernel, SourceCards& sources, BackEnd& backEnd,
                         std::function<Multiplexer*(int slot, int port)> output)
    : kernel_(kernel), sources_(sources), output_(std::move(output)) {
  backEnd.provide(protocol::Operation::kPids, BackEnd::Target::kChassis, {},
                  std::bind_front(&PidCounters::serve, this));
}

u32 PidCounters::serve(const protocol::Request& request, base::Bytes& reply) {
  const bool resets = request.variable == protocol::kResetPids;
  if (!resets && request.variable != protocol::kReadPids) return protocol::kUnknownVariable;
  if (request.data.size() != (resets ? 0 : sizeof(u16))) return protocol::kBadLength;
  const Place place{.slot = request.slot, .port = request.port};
  Stream* counted = stream(place);
  if (counted == nullptr) return refusal(place);
  const Nanos now = kernel_.now();
  catchUp(*counted, now);
  counted->asked = now;
  counted->askedAt = Clock::now();
  if (resets) {
    counted->meter.reset();
    counted->since = counted->second = now;
    return protocol::kDone;
  }
  protocol::PidCounts counts{.counted_ms = static_cast<u64>((now - counted->since) / 1'000'000),
                             .counts = counted->meter.counts()};
  counts.pids = static_cast<u32>(counts.counts.size());
  const u16 first = wire::get16(request.data.data());
  std::erase_if(counts.counts, [first](const protocol::PidCount& count) { return count.pid < first; });
  reply = protocol::encode(counts);
  return protocol::kDone;
}

PidCounters::Stream* PidCounters::stream(const Place& place) {
  if (const auto known = streams_.find(place); known != streams_.end()) return &known->second;
  Multiplexer* output = output_(place.slot, static_cast<int>(place.port));
  if (output == nullptr && !sources_.hasInput(place)) return nullptr;
  Stream& stream = streams_[place];
  stream.output = output;
  start(place, stream);
  return &stream;
}

u32 PidCounters::refusal(const Place& place) const {
  if (sources_.cards().contains(place.slot)) return protocol::kNoInput;
  const bool hasCard = place.slot < MAX_BOARD_NUM && output_(place.slot, 0) != nullptr;
  return hasCard || place.slot >= MAX_BOARD_NUM ? protocol::kBadSlotOrPort : protocol::kNoCard;
}

// Earlier packets are not counted.
void PidCounters::start(const Place& place, Stream& stream) {
  stream.since = stream.second = kernel_.now();
  const auto count = [&stream](mpeg::PacketView packet) { stream.meter.packet(packet); };
  catchUp(stream, stream.since);
  stream.meter.reset();
  if (stream.output == nullptr) return sources_.watch(place, count);
  stream.output->setTap(Multiplexer::Tap::kCounters, count);
}

void PidCounters::stop(const Place& place, const Stream& stream) {
  if (stream.output == nullptr) return sources_.watch(place, nullptr);
  stream.output->setTap(Multiplexer::Tap::kCounters, nullptr);
}

// Counts what has arrived or left by now.
void PidCounters::catchUp(Stream& stream, Nanos now) {
  if (stream.output == nullptr) return sources_.deliverUntil(now);
  stream.output->advance(now);
  const std::uint64_t nulls = stream.output->counts().null;
  if (nulls > stream.nulls) stream.meter.add(kNullPid, nulls - std::exchange(stream.nulls, nulls));
}

void PidCounters::update(Nanos now) {
  for (auto at = streams_.begin(); at != streams_.end();) {
    auto& [place, stream] = *at;
    if (now - stream.second < kSecond) {
      ++at;
      continue;
    }
    catchUp(stream, now);
    stream.meter.second(now - std::exchange(stream.second, now));
    const bool isWanted =
        now - stream.asked < kKept || Clock::now() - stream.askedAt < std::chrono::nanoseconds(kKept);
    if (!isWanted) stop(place, stream);
    at = isWanted ? std::next(at) : streams_.erase(at);
  }
}

}  // namespace headend
