// A history: what operators, clients and faults do to a chassis in a few virtual seconds, drawn from a seed.
// history.cpp has the fault model. The same seed gives the same history, on every machine.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "headend/kernel/kernel.h"
#include "platform/types.h"
#include "ui/qamMibRows.h"

namespace campaign {

using headend::kSecond;
using headend::Nanos;
inline constexpr Nanos kMillisecond = kSecond / 1000;

// A chassis before a history begins: its cards, the streams on the inputs of the source card in slot 6, and
// the commands that have filled its flash.
struct Preparation {
  std::string name;
  std::vector<int> slots;
  std::vector<std::string> inputs{};  // files of the samples, or of makeFiles()
  std::vector<std::string> commands{};
  bool isRunning = true;  // else the history begins with the power-up
  unsigned share = 0;     // of all histories, in percent
};
const std::vector<Preparation>& preparations();

// One act of a history. Times count from its beginning.
struct Step {
  enum class Kind {
    kCommand,      // `what` is a command of qamctl
    kSnmp,         // a manager reads or sets the row `number` of a card's MIB
    kFault,        // `what` is a fault of a card or an input, present until `until`
    kTemperature,  // `what` is a sensor, which measures `number` degrees until `until`
    kFlash,        // `what` is a fault of the flash from its operation `number` on, until `until`
    kHeap,         // from the allocation `number` on the card gets no memory, until `until`
    kUpload,       // a client of its own leaves or damages an upload
    kFlood,        // `number` datagrams to a socket
    kClock,        // the time of day jumps by `number` seconds
    kPowerCut,     // at the event `number` of the kind `what`
  };
  Kind kind{};
  Nanos at = 0;
  Nanos until = 0;
  std::string what{};
  int slot = 0;
  int port = 0;
  std::int64_t number = 0;

  bool isFault() const { return kind != Kind::kCommand && kind != Kind::kSnmp; }
};
std::string describe(const Step& step);
// What a manager asks at a step: to set a value, or to read. One of a flood always reads.
struct SnmpRequest {
  const QamMibRow& row;
  std::optional<int> value;
};
SnmpRequest snmpRequestOf(const Step& step);
const char* nameOf(Step::Kind kind);

struct History {
  u64 seed = 0;
  const Preparation* preparation = nullptr;
  Nanos length = 0;
  std::vector<Step> steps{};

  // Without the steps that are not named.
  History only(const std::vector<std::size_t>& numbers) const;
};

// `only` names a preparation; nullptr: the seed chooses.
History historyOf(u64 seed, const Preparation* only = nullptr);

}  // namespace campaign
