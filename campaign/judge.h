// What must hold in a history whatever fails, and at what it is seen: the packets on the air
// (output_judge.h), the files of the flash, the router, the alarm list, the heap, the tasks. One judge per
// process.
#pragma once

#include <array>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "campaign/history.h"
#include "campaign/output_judge.h"
#include "headend/headend.h"
#include "ts/qamRecords.h"

namespace campaign {

struct Failure {
  std::string invariant;
  std::string text;
};

class Judge {
 public:
  explicit Judge(headend::Headend& headend);
  ~Judge();

  // From now on the history's faults explain what they can bring.
  void begin(const History& history);
  // At any time between two operations; `isQuiet`: the faults are over and all work is done.
  void examine(bool isQuiet);
  // After a start: the record's file that the card found is the one that the history left.
  void expectRecord(int slot, const std::optional<u64>& hash);
  std::optional<u64> recordHash(int slot) const { return cards_[static_cast<std::size_t>(slot)].kept; }
  void failed(const std::string& invariant, const std::string& text);
  void count(const std::string& check, u64 made) { checks_[check] += made; }
  // What the faults can bring.
  struct Explained {
    std::array<bool, MAX_BOARD_NUM> stopped{};  // the FPGA of a card loses its configuration
    std::set<int> lostInputs{};                 // of the source card
    bool startFails = false;             // a file reads short, or there is no memory, while cards start
    std::set<std::string> violations{};  // prefixes
  };
  const Explained& explained() const { return explained_; }
  void explainViolation(const std::string& prefix) { explained_.violations.insert(prefix); }
  const std::vector<Failure>& failures() const { return failures_; }
  const std::map<std::string, u64>& checks() const { return checks_; }  // made, by what
  bool isWritten(int slot) const { return cards_[static_cast<std::size_t>(slot)].isWritten; }
  void noteWritten(int slot) { cards_[static_cast<std::size_t>(slot)].isWritten = true; }

  // What the module does, as its own parts and the chassis's services see it.
  void alarm(u8 slot, u8 port, u16 type, std::string_view text, bool isRaised);
  void tablesChange(u8 slot, u8 port);  // it has locked or unlocked them
  void unlocksMap(u8 slot, u8 port, bool begins);
  void stores(const QamCardPara* ptr, u8 port, const set_psi_pkt& chunk);
  void storesMap(const QamCardPara* ptr, u8 port);
  void rebuilds(u8 slot);  // the send lists
  void rebuilt(u8 slot, u8 port);
  void routed(u8 slot, u8 port);  // a position of the router's map

 private:
  struct Channel {
    std::unique_ptr<OutputJudge> output{};
    // Since the last lock, a client has written tables, or entries of the map, without it.
    bool tablesPastLock = false;
    bool mapPastLock = false;
    bool mapChanges = false;  // from the end of its lock until the router has it
  };
  static std::size_t indexOf(int slot, int port) {
    return static_cast<std::size_t>(slot) * MAX_QAM_OUT_NUM + static_cast<std::size_t>(port);
  }
  Channel& channel(int slot, int port) { return channels_[indexOf(slot, port)]; }
  const QamCardPara* record(int slot) const;
  int slotOf(const QamCardPara* ptr) const;
  void explainFault(const std::string& fault);
  void wrote(std::string_view file, std::string_view content);
  void examineFile(int slot, bool isQuiet);
  void examineRouter(int slot, int port);
  void examineTasks();
  bool mayHang() const;  // a card
  std::size_t heapBesideLists() const;

  headend::Headend& headend_;
  std::vector<Failure> failures_;
  std::map<std::string, u64> checks_;
  Explained explained_;
  std::array<Channel, std::size_t{MAX_BOARD_NUM} * MAX_QAM_OUT_NUM> channels_;
  struct Card {
    bool isWritten = false;
    bool isKnown = false;          // which alarms it takes for raised
    std::optional<u64> kept{};     // the hash of the record's file
    std::optional<u64> pending{};  // of the content on its way to it
  };
  std::array<Card, MAX_BOARD_NUM> cards_;
  std::set<std::tuple<int, int, int, char>> alarms_;  // slot, port, type, channel of the text
  std::optional<std::size_t> heap_;
};

Judge* judge();  // of this process; null before and after

}  // namespace campaign
