#include "headend/firmware/snmp/notifier.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <utility>

namespace headend {

void Notifier::start() {
  add({.standard = Notification::Standard::kColdStart});
  if (sink_.isInform()) listen();
  kernel_.spawn("tSnmpTrap", kPriority, [this] { run(); });
}

void Notifier::authenticationFailed() {
  if (kernel_.now() - lastFailure_ < kSecond) return;
  lastFailure_ = kernel_.now();
  add({.standard = Notification::Standard::kAuthenticationFailure});
}

void Notifier::add(Notification notification) {
  notification.at = kernel_.now();
  waiting_.push_back(notification);
  limit();
  kernel_.wakeFirst(tasks_);
}

void Notifier::limit() {
  if (waiting_.size() <= kWaitingMost) return;
  waiting_.pop_front();
  if (std::has_single_bit(++dropped_))
    say_(fmt::format("too many SNMP notifications wait: the oldest is dropped ({} so far)", dropped_));
}

void Notifier::listen() {
  network_.watchOnce(sink_.fd(), [this] {
    readable_ = true;
    kernel_.wakeFirst(tasks_);
  });
}

void Notifier::run() {
  const int period = std::max(1, kernel_.settings().tickHz / 10);
  for (;;) {
    const bool isDone = waiting_.empty() && !sent_;
    if (isDone || sink_.isInform()) kernel_.waitOn(tasks_, isDone ? os::WAIT_FOREVER : period);
    if (sink_.isInform()) {
      attendInform();
    } else {
      while (!waiting_.empty()) send();
    }
  }
}

void Notifier::attendInform() {
  if (std::exchange(readable_, false)) {
    kernel_.charge("recvfrom", kernel_.settings().costs.kernelCall);
    sink_.read();
    listen();
  }
  sink_.checkTimeOuts();
  if (const auto isAcknowledged = sink_.takeResult()) returned(*isAcknowledged);
  if (!sink_.isBusy() && !waiting_.empty() && Clock::now() >= notBefore_) send();
}

// Discovers the receiver's engine first, if that is necessary.
void Notifier::send() {
  kernel_.charge("sendto", kernel_.settings().costs.kernelCall);
  if (!sink_.isReady()) {
    sink_.discover();
    return;
  }
  const Notification notification = waiting_.front();
  waiting_.pop_front();
  if (sink_.isInform()) sent_ = notification;
  const bool isSent = sink_.send(messageOf(notification, base_, sink_.isInform()));
  if (sink_.isInform()) return;  // the result follows
  if (!isSent && !isSilent_)
    say_(fmt::format("an SNMP notification could not be sent: {}", std::strerror(errno)));
  isSilent_ = !isSent;
}

// A notification that is not acknowledged is sent again after a pause, unless too many newer ones wait.
void Notifier::returned(bool isAcknowledged) {
  constexpr std::chrono::seconds kPause{2};
  if (isAcknowledged == isSilent_) {
    say_(isAcknowledged ? "the receiver of SNMP notifications acknowledges again"
                        : "the receiver of SNMP notifications does not acknowledge: they wait");
  }
  isSilent_ = !isAcknowledged;
  if (!isAcknowledged) notBefore_ = Clock::now() + kPause;
  const std::optional<Notification> sent = std::exchange(sent_, std::nullopt);
  if (isAcknowledged || !sent) return;
  waiting_.push_front(*sent);
  limit();
}

}  // namespace headend
