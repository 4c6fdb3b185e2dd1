// What one output sends must hold for any receiver, whatever fails.
#pragma once

#include <bitset>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "headend/headend.h"
#include "mpeg/section.h"
#include "ts/qamRecords.h"

namespace campaign {

class Judge;

// Compared only within this program.
u64 hashOf(std::string_view text);
u64 hashOf(std::span<const u8> bytes);

// The packets of one output, in order. Between two of them on a PID, the continuity counter increases by one;
// the sections are whole, but for one that an upload cuts. A store may itself hold parts of sections: the
// record was saved while a client had locked the channel, or a client uploaded them. Then the card sends just
// these packets.
class OutputJudge final : public headend::PacketSink {
 public:
  OutputJudge(Judge& judge, headend::Headend& headend, int slot, int port);

  void packet(std::span<const u8> packet) override;
  void nullPackets(u64 count) override;
  void flush() override;
  const std::string& error() const override;

  void tablesChange();  // their lock or unlock
  void routed() { ++routes_; }
  void uploaded(std::span<const u8> packet);
  void rebuilt(const QamCardPara& record);      // the send lists
  std::size_t nodes() const { return nodes_; }  // of the send lists

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

  bool isStopped() const;  // its FPGA may have lost its configuration
  bool isClean(u16 pid) const;
  std::string where() const;
  void wrong(std::span<const u8> packet, const char* what);
  void stored(std::span<const u8> packet);
  void gather(u16 pid, Pid& state);
  void fromRouter(std::span<const u8> packet);

  Judge& judge_;
  int slot_;
  int port_;
  headend::Headend& headend_;
  headend::Multiplexer& output_;
  headend::PacketSink* next_;      // the output's own, or null
  std::unordered_set<u64> known_;  // packets that were in the store
  std::bitset<kPids> partial_;     // PIDs on which the store once held parts of sections
  std::map<u16, Pid> psiPids_, routedPids_;
  std::size_t nodes_ = 0;
  u64 psi_ = 0;
  u64 changes_ = 0;  // locks and unlocks of the tables
  u64 routes_ = 0;
  u64 packets_ = 0;
  u64 sections_ = 0;
};

}  // namespace campaign
