#include "tools/web/feed.h"

#include <fmt/format.h>

#include <algorithm>

#include "client/chassis_services.h"
#include "commands/panel.h"
#include "commands/status.h"

namespace tools {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kWatched{200}, kAlone{1000};  // between two states, with and without viewers
// After a change: its effect, as that of a key on the LCD, may come a moment after the answer.
constexpr milliseconds kChanged{40}, kAfterChange{400};
constexpr milliseconds kWatching{5000};  // so long after its last question a viewer counts
constexpr milliseconds kAnswerAge{1000}, kQueue{2000};
constexpr client::UdpLinkOptions kQuick = {.timeout = milliseconds(400), .tries = 2};
constexpr std::size_t kPaceSamples = 10;

Json unixMilliseconds() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration_cast<milliseconds>(now).count();
}

}  // namespace

Feed::Feed(Place place)
    : place_(std::move(place)), link_(place_.management, kQuick), thread_([this] { poll(); }) {}

Feed::~Feed() {
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

// Viewers ask again after each state, at least every few seconds.
bool Feed::isWatched() const {
  return Clock::now() - lastViewer_ < kWatching;
}

void Feed::poll() {
  std::unique_lock lock(mutex_);
  for (auto due = Clock::now(); !ends_;) {
    const auto last = hurriesUntil_;
    const bool wasWatched = isWatched();  // a first viewer does not wait for the end of the longer pause
    changed_.wait_until(lock, due,
                        [&] { return ends_ || hurriesUntil_ != last || (!wasWatched && isWatched()); });
    if (ends_) break;
    lock.unlock();
    read();
    lock.lock();
    const auto now = Clock::now();
    due = now + (now < hurriesUntil_ ? kChanged : isWatched() ? kWatched : kAlone);
  }
}

void Feed::read() {
  std::string error;
  try {
    std::optional<Json> report = commands::statusOf(link_);
    if (!report) client::fail("{} gives no report", place_.management);
    Json lcd = commands::lcdJson(client::readLcd(link_));
    const std::lock_guard lock(mutex_);
    report_ = *std::move(report);
    lcd_ = std::move(lcd);
    readAt_ = unixMilliseconds();
    pace_ = paceAt(commands::number(report_, "virtual_seconds").value_or(0));
    keepRates();
  } catch (const std::exception& e) {
    error = e.what();
  }
  publish(error);
}

void Feed::publish(const std::string& error) {
  const std::lock_guard lock(mutex_);
  isUp_ = error.empty();
  ++state_.sequence;
  const Json state = stateJson(state_.sequence, readAt_, error, pace_ ? Json(*pace_) : Json(), report_, lcd_);
  state_.text = std::make_shared<const std::string>(compactText(state));
  changed_.notify_all();
}

// Virtual seconds a second, over the last polls; none before a second has passed.
std::optional<double> Feed::paceAt(double virtualSeconds) {
  if (!times_.empty() && virtualSeconds < times_.back().second) times_.clear();  // another run
  times_.emplace_back(Clock::now(), virtualSeconds);
  if (times_.size() > kPaceSamples) times_.pop_front();
  const std::chrono::duration<double> passed = times_.back().first - times_.front().first;
  if (passed < std::chrono::seconds(1)) return std::nullopt;
  return (times_.back().second - times_.front().second) / passed.count();
}

void Feed::keepRates() {
  const Clock::time_point now = Clock::now();
  if (now - ratesKept_ < std::chrono::seconds(1)) return;
  ratesKept_ = now - ratesKept_ > std::chrono::seconds(2) ? now : ratesKept_ + std::chrono::seconds(1);
  for (const Json& row : commands::ratesReport(report_)) rates_.add(commands::oneLine(row["channel"]), row);
}

Feed::State Feed::after(unsigned long sequence, milliseconds limit) {
  std::unique_lock lock(mutex_);
  const bool wasWatched = isWatched();
  lastViewer_ = Clock::now();
  if (!wasWatched) changed_.notify_all();
  changed_.wait_for(lock, limit, [&] { return ends_ || state_.sequence > sequence; });
  return state_;
}

Json Feed::history() {
  const std::lock_guard lock(mutex_);
  return rates_.json();
}

Json Feed::report() {
  const std::lock_guard lock(mutex_);
  return isUp_ ? report_ : Json();
}

std::string Feed::answer(const std::vector<std::string>& words) {
  const std::unique_lock lock(asking_, kQueue);
  if (!lock) throw client::Error("earlier questions to the headend take long", client::Error::Kind::kNoReply);
  const auto kept = answers_.find(words);
  if (kept != answers_.end() && Clock::now() - kept->second.at < kAnswerAge) return kept->second.text;
  std::vector<std::string> line = words;
  line.emplace_back("--json");
  return (answers_[words] = {.at = Clock::now(), .text = carryOut(place_, line, "", ends_).output}).text;
}

Outcome Feed::change(const std::vector<std::string>& words, const std::string& file,
                     const std::optional<Expected>& expected) {
  const std::unique_lock turn(changing_, kQueue);
  if (!turn) client::fail("another change is being made; try again");
  if (expected) {
    forgetAnswers();
    const nlohmann::json now = nlohmann::json::parse(answer(expected->words));  // whatever its order
    if (now != nlohmann::json(expected->value)) throw Changed();
  }
  // Also after a failure: a part may have been changed.
  struct AtEnd {
    ~AtEnd() { feed.showSoon(); }
    Feed& feed;
  };
  const AtEnd atEnd{*this};
  return carryOut(place_, words, file, ends_);
}

void Feed::forgetAnswers() {
  const std::lock_guard lock(asking_);
  answers_.clear();
}

void Feed::showSoon() {
  forgetAnswers();
  {
    const std::lock_guard lock(mutex_);
    hurriesUntil_ = Clock::now() + kAfterChange;
  }
  changed_.notify_all();
}

}  // namespace tools
