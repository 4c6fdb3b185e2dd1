#include "headend/firmware/debug_shell.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "card/QamFpga.h"
#include "platform/wire.h"

namespace headend {
namespace {

constexpr std::size_t kPrintedMost = 4096;  // for one call, in bytes

// Routines whose first argument, the slot, is the request's.
struct Routine {
  const char* name;
  std::size_t count;  // number of the other arguments
  void (*call)(u8 slot, const u32* arguments);
};
constexpr Routine kRoutines[] = {
    {"qamPidSetFilter", 3,
     [](u8 slot, const u32* a) {
       qamPidSetFilter(slot, static_cast<u8>(a[0]), static_cast<u16>(a[1]), static_cast<u8>(a[2]));
     }},
    {"qamPidFilterAllSet", 2,
     [](u8 slot, const u32* a) { qamPidFilterAllSet(slot, static_cast<u8>(a[0]), static_cast<u8>(a[1])); }},
    {"qamFpgaWFilter", 1,
     [](u8 slot, const u32* a) { qamFpgaWFilter(slot, static_cast<u8>(a[0]), nullptr); }},
    {"QamFpgaIfTest", 1, [](u8 slot, const u32* a) { QamFpgaIfTest(slot, static_cast<u16>(a[0])); }},
    {"QamFpgaTest", 0, [](u8 slot, const u32*) { QamFpgaTest(slot); }},
};

}  // namespace

void DebugShell::provide(BackEnd& backEnd) {
  using enum protocol::Operation;
  backEnd.provide(kCall, BackEnd::Target::kRunningCard, std::bind_front(&DebugShell::call, this));
  backEnd.provide(kCallResult, BackEnd::Target::kChassis, std::bind_front(&DebugShell::result, this));
}

u32 DebugShell::call(const protocol::Request& request, base::Bytes& reply) {
  const auto end = std::find(request.data.begin(), request.data.end(), u8{0});
  if (end == request.data.end()) return protocol::kBadLength;
  const std::string name(request.data.begin(), end);
  const std::size_t size = static_cast<std::size_t>(request.data.end() - end) - 1;
  const Routine* routine = std::find_if(std::begin(kRoutines), std::end(kRoutines),
                                        [&](const Routine& r) { return name == r.name; });
  constexpr std::size_t kArgument = 4;
  if (routine == std::end(kRoutines) || size != routine->count * kArgument) return protocol::kUnknownRoutine;
  std::array<u32, 4> arguments{};
  for (std::size_t i = 0; i < routine->count; ++i) {
    arguments[i] = wire::get32(&*(end + 1 + static_cast<std::ptrdiff_t>(i * kArgument)));
  }

  if (calls_.size() >= kRemembered && calls_.front().finished) calls_.pop_front();
  Call& call = calls_.emplace_back(Call{.number = ++made_, .task = -1, .finished = false, .printed = {}});
  const auto slot = static_cast<u8>(request.slot);
  call.task = kernel_.spawn(
      fmt::format("tShell{}", call.number), kPriority,
      [&call, routine, slot, arguments] {
        routine->call(slot, arguments.data());
        call.finished = true;
      },
      slot);
  reply.resize(sizeof(u32));
  wire::put32(reply.data(), call.number);
  return protocol::kDone;
}

u32 DebugShell::result(const protocol::Request& request, base::Bytes& reply) const {
  if (request.data.size() != sizeof(u32)) return protocol::kBadLength;
  const u32 number = wire::get32(request.data.data());
  const auto call =
      std::find_if(calls_.begin(), calls_.end(), [&](const Call& c) { return c.number == number; });
  if (call == calls_.end()) return protocol::kUnknownCall;
  reply = {static_cast<u8>(call->finished ? 1 : 0), 0, 0, 0};
  reply.insert(reply.end(), call->printed.begin(), call->printed.end());
  return protocol::kDone;
}

void DebugShell::printed(const Task* task, const std::string& text) {
  if (task == nullptr) return;
  const auto call = std::find_if(calls_.begin(), calls_.end(),
                                 [&](const Call& c) { return c.task == task->id && !c.finished; });
  if (call != calls_.end() && call->printed.size() + text.size() <= kPrintedMost) call->printed += text;
}

}  // namespace headend
