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

DebugShell::DebugShell(Kernel& kernel, BackEnd& backEnd) : kernel_(kernel) {
  using enum protocol::Operation;
  backEnd.provide(kCall, BackEnd::Target::kRunningCard, {}, std::bind_front(&DebugShell::call, this));
  backEnd.provide(kCallResult, BackEnd::Target::kChassis, sizeof(u32),
                  std::bind_front(&DebugShell::result, this));
}

u32 DebugShell::call(const protocol::Request& request, base::Bytes& reply) {
  const auto end = std::ranges::find(request.data, 0);
  if (end == request.data.end()) return protocol::kBadLength;
  const std::string name(request.data.begin(), end);
  const std::size_t size = static_cast<std::size_t>(request.data.end() - end) - 1;
  const Routine* routine = std::ranges::find(kRoutines, name, &Routine::name);
  constexpr std::size_t kArgument = 4;
  if (routine == std::end(kRoutines) || size != routine->count * kArgument) return protocol::kUnknownRoutine;
  std::array<u32, 4> arguments{};
  for (std::size_t i = 0; i < routine->count; ++i) {
    arguments[i] = wire::get32(&*(end + 1 + static_cast<std::ptrdiff_t>(i * kArgument)));
  }

  if (calls_.size() >= kRemembered && calls_.front().finished) calls_.pop_front();
  Call& call = calls_.emplace_back(Call{.number = ++made_});
  const auto slot = static_cast<u8>(request.slot);
  call.task = kernel_.spawn(
      fmt::format("tShell{}", call.number), kPriority,
      [&call, routine, slot, arguments] {
        routine->call(slot, arguments.data());
        call.finished = true;
      },
      slot);
  base::append32(reply, call.number);
  return protocol::kDone;
}

u32 DebugShell::result(const protocol::Request& request, base::Bytes& reply) const {
  const auto call = std::ranges::find(calls_, wire::get32(request.data.data()), &Call::number);
  if (call == calls_.end()) return protocol::kUnknownCall;
  reply = {static_cast<u8>(call->finished ? 1 : 0), 0, 0, 0};
  reply.insert(reply.end(), call->printed.begin(), call->printed.end());
  return protocol::kDone;
}

void DebugShell::printed(const Task* task, const std::string& text) {
  if (task == nullptr) return;
  const auto isOf = [task](const Call& call) { return call.task == task->id && !call.finished; };
  const auto call = std::ranges::find_if(calls_, isOf);
  if (call != calls_.end() && call->printed.size() + text.size() <= kPrintedMost) call->printed += text;
}

}  // namespace headend
