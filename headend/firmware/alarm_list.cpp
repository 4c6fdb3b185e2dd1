#include "headend/firmware/alarm_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <set>
#include <sstream>
#include <string_view>
#include <system_error>

#include "base/text.h"
#include "mpeg/section.h"

namespace headend {
namespace {

// ---- The file ----

namespace fs = std::filesystem;

constexpr const char* kPath = "/tffs0/alarms/history.dat";
constexpr std::size_t kLongest = 64U << 20;  // many times the size of the stored entries
constexpr std::string_view kMagic = "QAMALRM1";

u32 checkOf(const AlarmRecord& event) {
  return mpeg::crc32(std::span<const u8>(base::bytesOf(event)).subspan(sizeof event.check));
}

void put(base::Bytes& bytes, AlarmRecord event) {
  event.check = checkOf(event);
  base::append(bytes, base::bytesOf(event));
}

// ---- The list ----

using Kind = protocol::AlarmEvent::Kind;
using chassis::alarm_t;

// Cut to the field where it is too long, but never within a Chinese character.
template <std::size_t N>
void fill(char (&field)[N], const char* text) {
  std::size_t size = 0;
  while (text[size] != '\0') {
    const bool isWide = (static_cast<u8>(text[size]) & 0x80) != 0 && text[size + 1] != '\0';
    const std::size_t next = size + (isWide ? 2 : 1);
    if (next >= N) break;
    size = next;
  }
  std::memset(field, 0, N);
  std::memcpy(field, text, size);
}

bool fits(const alarm_t& alarm, const AlarmList::Key& key) {
  return alarm.Slot == key.slot && alarm.Port == key.port && alarm.Type == key.type;
}

// The six texts are the end of the record; each is zero after its text.
bool hasTextsOf(const alarm_t& a, const alarm_t& b) {
  constexpr std::size_t kTexts = offsetof(alarm_t, StrZhTitle);
  return std::memcmp(reinterpret_cast<const char*>(&a) + kTexts, reinterpret_cast<const char*>(&b) + kTexts,
                     sizeof a - kTexts) == 0;
}

AlarmRecord recordOf(const AlarmList::Key& key) {
  AlarmRecord event;
  event.alarm.Type = key.type;
  event.alarm.Slot = key.slot;
  event.alarm.Port = key.port;
  return event;
}

// The words of a text between blanks, in small letters.
std::set<std::string> wordsOf(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

std::ptrdiff_t sharedWords(const alarm_t& alarm, const std::set<std::string>& words) {
  const std::set<std::string> own =
      wordsOf(std::string(alarm.StrEnTitle) + ' ' + alarm.StrEnCont + ' ' + alarm.StrEnTrap);
  return std::ranges::count_if(own, [&](const std::string& word) { return words.contains(word); });
}

// Updates the active alarms by an event.
void account(std::vector<AlarmRecord>& standing, const AlarmRecord& event) {
  if (event.kind == Kind::kRaised) {
    standing.push_back(event);
  } else {
    std::erase_if(standing, [&](const AlarmRecord& raised) { return raised.number == event.ends; });
  }
}

template <typename Events>
u32 answer(const Events& events, std::uint64_t next, const protocol::Request& request, base::Bytes& reply) {
  const auto from = protocol::pageFrom(request.data);
  if (!from) return protocol::kBadLength;
  reply = protocol::alarmPage(next);
  const auto isBefore = [](const AlarmRecord& event, std::uint64_t number) { return event.number < number; };
  for (auto event = std::lower_bound(events.begin(), events.end(), *from, isBefore);
       event != events.end() && protocol::addToPage(reply, outward(*event)); ++event) {
  }
  return protocol::kDone;
}

}  // namespace

std::deque<AlarmRecord> AlarmFile::load() {
  const fs::path file = flash_.hostPath(kPath).value();
  std::optional<std::string> bytes;
  std::string wrong;
  try {
    bytes = flash_.read(kPath, kLongest);
    if (!bytes) return {};
    if (!bytes->starts_with(kMagic)) wrong = fmt::format("{} is no alarms' history", file.string());
  } catch (const std::system_error&) {
    wrong = fmt::format("the alarms' history {} cannot be read; it begins anew", file.string());
  }
  std::deque<AlarmRecord> events;
  std::string_view rest = wrong.empty() ? std::string_view(*bytes).substr(kMagic.size()) : "";
  for (; rest.size() >= sizeof(AlarmRecord); rest.remove_prefix(sizeof(AlarmRecord))) {
    AlarmRecord event;
    std::memcpy(&event, rest.data(), sizeof event);
    ++entries_;
    const std::uint64_t last = events.empty() ? 0 : events.back().number;
    if (event.check == checkOf(event) && event.number > last) events.push_back(event);
  }
  if (const std::size_t lost = entries_ - events.size(); lost > 0) {
    wrong = fmt::format("the alarms' history {} is damaged: {} of {} entries are lost", file.string(), lost,
                        entries_);
  }
  hasFile_ = wrong.empty() && rest.empty();
  if (!wrong.empty()) {
    say_(wrong);
    locked_ = !putAside(file);
  } else if (!rest.empty()) {  // as after the end of a process during a write
    say_(fmt::format("the alarms' history {} ends within an event, which is lost", file.string()));
  }
  return events;
}

bool AlarmFile::putAside(const fs::path& file) {
  const fs::path aside = file.string() + ".damaged";
  std::error_code error;
  fs::rename(file, aside, error);
  if (error) {
    failed(fmt::format("cannot rename {} to {}: {}", file.string(), aside.string(), error.message()));
    return false;
  }
  say_(fmt::format("it is kept as {}", aside.string()));
  return true;
}

void AlarmFile::save(const std::vector<AlarmRecord>& before, const std::deque<AlarmRecord>& events) {
  base::Bytes bytes;
  put(bytes, events.back());
  hasFile_ = hasFile_ && entries_ < kMostEntries && flash_.append(kPath, bytes).empty();
  if (hasFile_) ++entries_;
  if (hasFile_ || locked_) return;
  bytes.assign(kMagic.begin(), kMagic.end());
  for (const AlarmRecord& event : before) put(bytes, event);
  for (const AlarmRecord& event : events) put(bytes, event);
  const std::string failure = flash_.replace(kPath, bytes);
  hasFile_ = failure.empty();
  if (!hasFile_) return failed(failure);
  failure_.clear();
  entries_ = before.size() + events.size();
}

// Said once, and again when it fails for another reason.
void AlarmFile::failed(const std::string& failure) {
  if (failure != failure_) say_("the alarms' history is not kept: " + failure);
  failure_ = failure;
}

// ---- The list ----

AlarmList::AlarmList(Flash& flash, std::function<u32()> clock, Say say)
    : file_(flash, std::move(say)), clock_(std::move(clock)) {
  history_ = file_.load();
  for (const AlarmRecord& event : history_) account(standing_, event);
  if (!history_.empty()) last_ = history_.back().number;
  forgetOldest();
}

void AlarmList::endAbsent(const std::vector<int>& slotsWithCard) {
  for (const AlarmRecord& raised : std::vector(standing_)) {
    if (std::ranges::count(slotsWithCard, raised.alarm.Slot) == 0)
      end(raised, Kind::kSlotAbsent, raised.alarm.StrZhTrap, raised.alarm.StrEnTrap);
  }
}

void AlarmList::add(const Key& key, const Texts& texts) {
  AlarmRecord event = recordOf(key);
  event.at = clock_();
  event.kind = Kind::kRaised;
  alarm_t& alarm = event.alarm;
  alarm.HappenTime = event.at;
  alarm.Stat = 1;
  fill(alarm.StrZhTitle, texts.zhTitle);
  fill(alarm.StrZhCont, texts.zhContent);
  fill(alarm.StrEnTitle, texts.enTitle);
  fill(alarm.StrEnCont, texts.enContent);
  fill(alarm.StrZhTrap, texts.zhTrap);
  fill(alarm.StrEnTrap, texts.enTrap);
  const auto isStanding = [&](const AlarmRecord& other) {
    return fits(other.alarm, key) && hasTextsOf(other.alarm, alarm);
  };
  if (std::ranges::none_of(standing_, isStanding)) note(event);
}

void AlarmList::remove(const Key& key, const char* zhTrap, const char* enTrap) {
  const std::set<std::string> words = wordsOf(enTrap);
  const auto likeness = [&](const AlarmRecord& raised) {
    return fits(raised.alarm, key) ? sharedWords(raised.alarm, words) : -1;
  };
  const auto best = std::ranges::max_element(standing_, {}, likeness);
  if (best != standing_.end() && likeness(*best) >= 0)
    return end(AlarmRecord(*best), Kind::kRecovered, zhTrap, enTrap);
  end(recordOf(key), Kind::kRecoveredWithoutAlarm, zhTrap, enTrap);
}

bool AlarmList::exists(const Key& key) const {
  return std::ranges::any_of(standing_, [&](const AlarmRecord& raised) { return fits(raised.alarm, key); });
}

// The record of a recovery keeps the titles of what it ends and has trap texts of its own.
void AlarmList::end(const AlarmRecord& raised, Kind kind, const char* zhTrap, const char* enTrap) {
  AlarmRecord event = raised;
  event.at = clock_();
  event.ends = raised.number;
  event.kind = kind;
  event.alarm.Stat = 0;
  event.alarm.IsDisappeared = 1;
  event.alarm.DisappearTime = event.at;
  fill(event.alarm.StrZhTrap, zhTrap);
  fill(event.alarm.StrEnTrap, enTrap);
  note(event);
}

void AlarmList::note(AlarmRecord event) {
  event.number = ++last_;
  account(standing_, event);
  history_.push_back(event);
  forgetOldest();
  file_.save(base_, history_);
  onEvent(event);
}

void AlarmList::forgetOldest() {
  for (; history_.size() > kHistory; history_.pop_front()) account(base_, history_.front());
}

void AlarmList::provide(BackEnd& backEnd) {
  const auto provideList = [&](protocol::Operation operation, const auto& list) {
    backEnd.provide(operation, BackEnd::Target::kChassis, {},
                    [this, &list](const protocol::Request& request, base::Bytes& reply) {
                      return answer(list, last_ + 1, request, reply);
                    });
  };
  provideList(protocol::Operation::kAlarms, standing_);
  provideList(protocol::Operation::kAlarmEvents, history_);
}

protocol::AlarmEvent outward(const AlarmRecord& event) {
  const alarm_t& alarm = event.alarm;
  return {.number = event.number,
          .at = event.at,
          .kind = event.kind,
          .alarm = {.slot = alarm.Slot,
                    .port = alarm.Port,
                    .type = alarm.Type,
                    .happened = alarm.HappenTime,
                    .zhTitle = base::utf8OfGbk(alarm.StrZhTitle),
                    .zhText = base::utf8OfGbk(alarm.StrZhCont),
                    .enTitle = base::utf8OfGbk(alarm.StrEnTitle),
                    .enText = base::utf8OfGbk(alarm.StrEnCont),
                    .zhTrap = base::utf8OfGbk(alarm.StrZhTrap),
                    .enTrap = base::utf8OfGbk(alarm.StrEnTrap)}};
}

}  // namespace headend
