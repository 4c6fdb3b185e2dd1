#include "headend/firmware/alarm_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>
#include <system_error>

#include "base/text.h"
#include "mpeg/section.h"

namespace headend {
namespace {

// ---- The file ----

namespace fs = std::filesystem;
using Kind = protocol::AlarmEvent::Kind;
using chassis::alarm_t;

constexpr const char* kPath = "/tffs0/alarms/history.dat";
constexpr std::size_t kLongest = 64U << 20;  // many times the size of the stored entries
constexpr std::string_view kMagic = "QAMALRM1";

u32 checkOf(const AlarmRecord& event) {
  return mpeg::crc32(std::span<const u8>(base::bytesOf(event)).subspan(sizeof event.check));
}

// Whether an entry with a right check can be used: of a kind that is known, with the end of each text, and
// with a number that a list can reach.
bool isUsable(const AlarmRecord& event) {
  const alarm_t& alarm = event.alarm;
  const auto ends = [](const auto& text) { return std::ranges::count(text, '\0') > 0; };
  return event.number <= AlarmFile::kMostNumber && event.kind <= Kind::kEndedWhileOff &&
         ends(alarm.StrZhTitle) && ends(alarm.StrZhCont) && ends(alarm.StrEnTitle) && ends(alarm.StrEnCont) &&
         ends(alarm.StrZhTrap) && ends(alarm.StrEnTrap);
}

void put(base::Bytes& bytes, AlarmRecord event) {
  event.check = checkOf(event);
  base::append(bytes, base::bytesOf(event));
}

// ---- The list ----

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

// The card gives port 0 with the lost inputs of both channels, so their texts tell the channel (UTF-8).
struct InputTexts {
  std::string_view enContent, zhContent, enRecovery, zhRecovery;
};
constexpr InputTexts kInputTexts[] = {
    {"Ch.1 Error", "频点一错误", "qam card {} ch.1 input OK!", "QAM卡{}频点一输入恢复正常"},
    {"Ch.2 Error", "频点二错误", "qam card {} ch.2 input OK!", "QAM卡{}频点二输入恢复正常"},
};

// Of an alarm of a card, in GBK and ASCII.
struct Titles {
  explicit Titles(int slot)
      : zh(base::gbkOfUtf8(fmt::format("卡{}", slot + 1))), en(fmt::format("Card{}", slot + 1)) {}
  std::string zh, en;
};

// From 1; 0: the whole card, or a lost input with other texts. The texts are the contents of an alarm that is
// raised, or those of a recovery.
u8 channelOf(const AlarmList::Key& key, std::string_view zh, std::string_view en) {
  constexpr u16 kOfWholeCard[] = {protocol::kAlarmCardDown, protocol::kAlarmRecordNotKept,
                                  protocol::kAlarmTooHot};
  if (std::ranges::count(kOfWholeCard, key.type) > 0) return 0;
  if (key.type != protocol::kAlarmInputLost) return static_cast<u8>(key.port + 1);
  const auto isText = [&](std::string_view given, std::string_view text) {
    return given == base::gbkOfUtf8(fmt::format(fmt::runtime(text), key.slot + 1));
  };
  const auto* found = std::ranges::find_if(kInputTexts, [&](const InputTexts& texts) {
    return isText(en, texts.enContent) || isText(en, texts.enRecovery) || isText(zh, texts.zhContent) ||
           isText(zh, texts.zhRecovery);
  });
  return found == std::end(kInputTexts) ? u8{0} : static_cast<u8>(found - std::begin(kInputTexts) + 1);
}

// The six texts are the end of the record; each is zero after its text.
bool hasTextsOf(const alarm_t& a, const alarm_t& b) {
  constexpr std::size_t kTexts = offsetof(alarm_t, StrZhTitle);
  return std::memcmp(reinterpret_cast<const char*>(&a) + kTexts, reinterpret_cast<const char*>(&b) + kTexts,
                     sizeof a - kTexts) == 0;
}

AlarmRecord recordOf(const AlarmList::Key& key, const char* zh, const char* en) {
  AlarmRecord event;
  event.channel = channelOf(key, zh, en);
  event.alarm.Type = key.type;
  event.alarm.Slot = key.slot;
  event.alarm.Port = key.port;
  return event;
}

bool isSame(const AlarmRecord& a, const AlarmRecord& b) {
  return a.alarm.Slot == b.alarm.Slot && a.alarm.Type == b.alarm.Type && a.channel == b.channel;
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
    if (event.check == checkOf(event) && event.number > last && isUsable(event)) events.push_back(event);
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
  if (!hasFile_ && !events.empty()) rewrite({}, events);
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
  if (!hasFile_) rewrite(before, events);
}

void AlarmFile::rewrite(const std::vector<AlarmRecord>& before, const std::deque<AlarmRecord>& events) {
  if (locked_) return;
  base::Bytes bytes(kMagic.begin(), kMagic.end());
  for (const AlarmRecord& event : before) put(bytes, event);
  for (const AlarmRecord& event : events) put(bytes, event);
  const std::string failure = flash_.replace(kPath, bytes);
  hasFile_ = failure.empty();
  if (!hasFile_) return failed(failure);
  if (!failure_.empty()) say_("the alarms' history is kept again");
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
  for (AlarmRecord& event : history_) {
    const alarm_t& alarm = event.alarm;
    if (event.channel == 0)  // as in entries of older versions
      event.channel = channelOf({alarm.Slot, alarm.Port, alarm.Type}, alarm.StrZhCont, alarm.StrEnCont);
    account(standing_, event);
  }
  if (!history_.empty()) last_ = history_.back().number;
  forgetOldest();
}

void AlarmList::endAtPowerUp(const std::vector<int>& slotsWithCard) {
  for (const AlarmRecord& raised : std::vector(standing_)) {
    if (std::ranges::count(slotsWithCard, raised.alarm.Slot) == 0) {
      end(raised, Kind::kSlotAbsent);
    } else if (raised.alarm.Type == protocol::kAlarmRecordNotKept) {
      end(raised, Kind::kEndedWhileOff);
    }
  }
}

void AlarmList::matchInputs(int slot, u8 lost) {
  const auto isLost = [lost](int channel) { return channel == 0 || (lost >> (channel - 1) & 1) != 0; };
  const auto isOfInput = [slot](const AlarmRecord& raised) {
    return raised.alarm.Slot == slot && raised.alarm.Type == protocol::kAlarmInputLost;
  };
  for (const AlarmRecord& raised : std::vector(standing_)) {
    if (isOfInput(raised) && !isLost(raised.channel)) end(raised, Kind::kEndedWhileOff);
  }
  const Titles titles(slot);
  for (int channel = 1; channel <= MAX_QAM_OUT_NUM; ++channel) {
    const bool isRaised = std::ranges::any_of(
        standing_, [&](const AlarmRecord& raised) { return isOfInput(raised) && raised.channel == channel; });
    if (isRaised || !isLost(channel)) continue;
    const InputTexts& texts = kInputTexts[channel - 1];
    add({static_cast<u8>(slot), 0, protocol::kAlarmInputLost},
        {titles.zh.c_str(), base::gbkOfUtf8(texts.zhContent).c_str(), titles.en.c_str(),
         std::string(texts.enContent).c_str(), base::gbkOfUtf8("无输入").c_str(), "No Input"});
  }
}

void AlarmList::add(const Key& key, const Texts& texts) {
  AlarmRecord event = recordOf(key, texts.zhContent, texts.enContent);
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
    return isSame(other, event) && alarm.Port == other.alarm.Port && hasTextsOf(other.alarm, alarm);
  };
  if (std::ranges::none_of(standing_, isStanding)) note(event);
}

void AlarmList::remove(const Key& key, const char* zhTrap, const char* enTrap) {
  const AlarmRecord recovery = recordOf(key, zhTrap, enTrap);
  const auto raised = std::ranges::find_if(
      standing_, [&](const AlarmRecord& standing) { return isSame(standing, recovery); });
  if (raised == standing_.end()) return end(recovery, Kind::kRecoveredWithoutAlarm, zhTrap, enTrap);
  end(AlarmRecord(*raised), Kind::kRecovered, zhTrap, enTrap);
}

void AlarmList::setOwn(int slot, protocol::AlarmType type, bool isRaised, const protocol::Words& words) {
  const Key key{static_cast<u8>(slot), 0, type};
  const std::string zh = base::gbkOfUtf8(words.chinese), en(words.english);
  const std::string zhTrap = base::gbkOfUtf8(fmt::format("QAM卡{}: {}", slot + 1, words.chinese));
  const std::string enTrap = fmt::format("qam card {}: {}", slot + 1, en);
  if (const AlarmRecord* raised = find(key)) {
    if (isRaised && raised->alarm.StrEnCont == en) return;
    remove(key, zhTrap.c_str(), enTrap.c_str());
  }
  if (!isRaised) return;
  const Titles titles(slot);
  add(key, {titles.zh.c_str(), zh.c_str(), titles.en.c_str(), en.c_str(), zhTrap.c_str(), enTrap.c_str()});
}

const AlarmRecord* AlarmList::find(const Key& key) const {
  const auto found = std::ranges::find_if(standing_, [&](const AlarmRecord& raised) {
    const alarm_t& alarm = raised.alarm;
    return alarm.Slot == key.slot && alarm.Port == key.port && alarm.Type == key.type;
  });
  return found == standing_.end() ? nullptr : &*found;
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
                    .channel = event.channel,
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
