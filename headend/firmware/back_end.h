// The back-end registry behind a datagram socket. It finds the table that a card registered, calls its
// routine and sends the reply. It also reads and sets variables of cards, and forwards other operations to
// other parts of the firmware. One task serves one request at a time. A request repeated with the client's
// last number gets the stored reply. docs/management-datagram.md describes the datagrams.
#pragma once

#include <array>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "headend/firmware/carousel_monitor.h"
#include "headend/firmware/chassis.h"
#include "headend/kernel/network.h"
#include "platform/backend.h"
#include "protocol/datagram.h"
#include "protocol/words.h"

namespace headend {

class BackEnd {
 public:
  // Lower priority than the send tasks (212): their queues are empty when a request is served. So no queue
  // holds the index of a packet that the request is about to erase from the store.
  static constexpr int kPriority = 220;
  static constexpr int kMachinePriority = 49;       // above every other task
  static constexpr std::size_t kKnownClients = 64;  // whose last replies are stored

  // A request that waited for more than a second, and the tasks that used the processor meanwhile.
  struct LateRequest {
    Nanos arrived = 0;
    std::vector<std::pair<std::string, Nanos>> load;  // task and its time in that second, longest first
  };

  // What a request addresses: the chassis, a channel of a modulator card, or a card that runs. A card that
  // does not run has no registers to set, and would wait forever. Or the machine on which the chassis runs: a
  // task of its own answers, also while the back end hangs.
  enum class Target { kChassis, kChannel, kRunningCard, kMachine };
  // Carries out an operation: gives a result, and the data of the reply. The request's data has its length
  // and the operation's; its slot and port are valid for the target.
  using Handler = std::function<u32(const protocol::Request& request, base::Bytes& reply)>;

  // `state` gives the state of the slot's card.
  BackEnd(Kernel& kernel, Network& network, Chassis& chassis, CarouselMonitor& monitor, Log& log,
          std::function<protocol::CardState(int slot)> state);

  UdpSocket& socket() { return socket_; }
  void start() {
    kernel_.spawn("tBackEnd", kPriority, [this] { serve(); });
    kernel_.spawn("tMachine", kMachinePriority, [this] { serveMachine(); });
  }
  // `size` is the length of a request's data; nullopt: any.
  void provide(protocol::Operation operation, Target target, std::optional<std::size_t> size,
               Handler handler) {
    operations_[operation] = {target, size, std::move(handler)};
  }

  // The reply to a request that takes no virtual time, between two moments of the run.
  protocol::Reply replyAtOnce(const protocol::Request& request) { return carryOut(request); }

  void registerVariables(u32 base, u32 limit, const chassis::bc_var* table) {
    registrations_.push_back({base, limit, table});
  }

  // The time since which a channel's PSI store (qam_back::kPsiLock) or PID map (kPidMapLock) is locked.
  std::optional<Nanos> lockedSince(u16 lock, int slot, int port) const;
  const std::vector<LateRequest>& lateRequests() const { return late_; }

 private:
  struct Registration {
    u32 base;
    u32 limit;
    const chassis::bc_var* table;
  };
  struct Provided {
    Target target;
    std::optional<std::size_t> size;
    Handler handler;
  };
  // The last replies to the last kKnownClients clients.
  class Replies {
   public:
    // The reply to a client's request of that number: the stored one if it was the client's last number, else
    // that of `carryOut`. Valid until the next call.
    const base::Bytes& to(const Endpoint& client, u32 sequence, const std::function<base::Bytes()>& carryOut);

   private:
    struct Client {
      Endpoint address;
      u32 sequence = 0;
      base::Bytes reply{};
    };
    std::list<Client> clients_;  // most recent first
  };
  struct Outstanding {
    std::uint64_t number;
    std::vector<Nanos> cpuTimes;  // by task, at the arrival
    Nanos interruptTime;
  };

  void serve();
  void serveMachine();
  bool arrived(const Datagram& datagram);
  void answer(const Datagram& datagram);
  protocol::Reply carryOut(protocol::Request request);
  u32 callCard(const protocol::Request& request, base::Bytes& reply);
  u32 write(const protocol::Request& request, base::Bytes& reply);
  u32 refuseTarget(const protocol::Request& request, Target target) const;
  u32 getVariable(const protocol::Request& request, base::Bytes& reply);
  u32 setVariable(const protocol::Request& request, base::Bytes& reply);
  const chassis::bc_var* findVariable(const protocol::Request& request) const;
  u32 groupStarts(const protocol::Request& request, base::Bytes& reply);
  void noteLock(const protocol::Request& request);
  void noteArrival(const Datagram& datagram);
  void reportLate(std::uint64_t number, Nanos arrived);

  Kernel& kernel_;
  Chassis& chassis_;
  CarouselMonitor& monitor_;
  Log& log_;
  UdpSocket socket_;
  std::function<protocol::CardState(int slot)> state_;
  std::map<protocol::Operation, Provided> operations_;
  std::vector<Registration> registrations_;
  Replies replies_, machineReplies_;
  std::map<std::tuple<u16, int, int>, Nanos> lockedSince_;  // by lock, slot and port
  std::deque<Outstanding> outstanding_;
  std::deque<std::pair<Endpoint, protocol::Request>> machineRequests_;
  std::vector<Task*> machineWaiters_;
  std::uint64_t arrivals_ = 0;
  std::vector<LateRequest> late_;

  // The buffer for the cards' read and write routines. It has room for the largest length that a header can
  // give, and is zero after the datagram; for a read, the header precedes the request data.
  struct alignas(8) Buffers {
    chassis::bc_vhdr_t header;
    std::array<u8, 0x12000> request;
    std::array<u8, 0x12000> reply;
  };
  Buffers buffers_{};
};

}  // namespace headend
