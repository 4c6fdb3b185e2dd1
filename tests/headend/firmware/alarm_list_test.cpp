// The chassis's alarm list: what stands, what a recovery ends, and what the flash folder keeps of it,
// whatever becomes of the file.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "base/text.h"
#include "headend/firmware/alarm_list.h"
#include "mpeg/section.h"
#include "tests/headend/scratch.h"

namespace test {
namespace {

using headend::AlarmList;
using headend::AlarmRecord;
using Kind = protocol::AlarmEvent::Kind;

constexpr AlarmList::Key kInput{2, 0, 769};
constexpr AlarmList::Texts kChannel1{"K", "1", "Card3", "Ch.1 Error", "N", "No Input"};
constexpr AlarmList::Texts kChannel2{"K", "2", "Card3", "Ch.2 Error", "N", "No Input"};

class Alarms : public ::testing::Test {
 protected:
  Alarms() { powerUp(); }

  void powerUp() {
    said_.clear();
    list_ = std::make_unique<AlarmList>(
        flash_, [this] { return now_; }, [this](const std::string& text) { said_ += text + '\n'; });
  }
  static std::string text(const AlarmRecord& event) {
    const auto& [number, at, kind, a] = headend::outward(event);
    return fmt::format("{}{} {}.{} {} {}|{}|{} {}", "+-?x0"[static_cast<int>(kind)], at, a.slot, a.channel,
                       a.type, a.enTitle, a.enText, a.enTrap, a.happened);
  }
  using Lines = std::vector<std::string>;
  static Lines texts(const auto& events) {
    Lines all;
    std::ranges::transform(events, std::back_inserter(all), text);
    return all;
  }
  Lines standing() const { return texts(list_->standing()); }
  Lines history() const { return texts(list_->history()); }
  Lines latest(std::ptrdiff_t count) const {
    const Lines all = history();
    return {all.end() - count, all.end()};
  }

  Scratch scratch_;
  fs::path file_ = scratch_.path / "alarms" / "history.dat";
  headend::Flash flash_{scratch_.path, base::Flush::kLater};
  u32 now_ = 1000;
  std::string said_;
  std::unique_ptr<AlarmList> list_;
};

TEST_F(Alarms, EndBySlotTypeAndChannel) {
  using protocol::Words;
  list_->add(kInput, kChannel1);
  now_ = 1001;
  list_->add(kInput, kChannel1);
  list_->add(kInput, kChannel2);
  list_->add({2, 1, 771}, kChannel1);
  list_->add({2, 1, 5}, kChannel1);
  list_->add({2, 1, 5}, kChannel2);
  list_->add({2, 1, 770}, kChannel1);
  list_->setOwn(2, protocol::kAlarmCardDown, true, {"hangs", "无响应"});
  list_->setOwn(2, protocol::kAlarmCardDown, true, {"hangs", "无响应"});
  EXPECT_EQ(standing().size(), 7U);
  EXPECT_TRUE(list_->find(kInput));
  EXPECT_FALSE(list_->find({2, 0, 770}) || list_->find({1, 0, 769}) || list_->find({2, 2, 769}));
  now_ = 1002;
  list_->remove(kInput, "Z", "qam card 4 ch.2 input OK!");  // of another slot
  list_->remove(kInput, "Z", "qam card 3 ch.2 input OK!");
  list_->remove(kInput, base::gbkOfUtf8("QAM卡3频点一输入恢复正常").c_str(), "Z");
  list_->remove({2, 0, 771}, "Z", "other port");
  list_->remove({2, 1, 771}, "Z", "port 2");
  list_->remove({2, 1, 5}, "Z", "Ch.2");
  list_->remove({2, 0, 770}, "Z", "cool");
  list_->setOwn(2, protocol::kAlarmCardDown, true, {"config error", "配置错误"});
  list_->setOwn(2, protocol::kAlarmCardDown, false, {"running", "运行"});
  list_->setOwn(2, protocol::kAlarmCardDown, false, {"running", "运行"});
  EXPECT_EQ(standing(), (Lines{"+1001 2.2 5 Card3|Ch.2 Error|No Input 1001"}));
  EXPECT_EQ(latest(10),
            (Lines{"?1002 2.0 769 ||qam card 4 ch.2 input OK! 0",
                   "-1002 2.2 769 Card3|Ch.2 Error|qam card 3 ch.2 input OK! 1001",
                   "-1002 2.1 769 Card3|Ch.1 Error|Z 1000", "?1002 2.1 771 ||other port 0",
                   "-1002 2.2 771 Card3|Ch.1 Error|port 2 1001", "-1002 2.2 5 Card3|Ch.1 Error|Ch.2 1001",
                   "-1002 2.0 770 Card3|Ch.1 Error|cool 1001",
                   "-1002 2.0 257 Card3|hangs|qam card 3: config error 1001",
                   "+1002 2.0 257 Card3|config error|qam card 3: config error 1002",
                   "-1002 2.0 257 Card3|config error|qam card 3: running 1002"}));
  const chassis::alarm_t& ended = list_->history()[8].alarm;
  EXPECT_TRUE(ended.IsDisappeared == 1 && ended.DisappearTime == 1002 && ended.Stat == 0);
}

TEST_F(Alarms, TextsAreCutToTheirFieldsAtWholeCharactersAndGoOutInUtf8) {
  const std::string wide =
      "\xB5\xF7\xD6\xC6\xBF\xA8\xB5\xF7\xD6\xC6\xBF\xA8\xB5\xF7\xD6\xC6\xBF\xA8";  // 9 characters
  const std::string odd = "x" + wide;
  list_->add(kInput, {odd.c_str(), wide.c_str(), "seventeen letters", "eighteen letters !", "\xFF!", ""});
  const protocol::Alarm alarm = headend::outward(list_->standing().at(0)).alarm;
  EXPECT_EQ(alarm.zhTitle, "x调制卡调制卡调制");
  EXPECT_EQ(alarm.zhText, "调制卡调制卡调制");
  EXPECT_EQ(alarm.enTitle, "seventeen letters");
  EXPECT_EQ(alarm.enText, "eighteen letters ");
  EXPECT_EQ(alarm.zhTrap, "\uFFFD!");
}

TEST_F(Alarms, OutliveAPowerUpAndEndWhereTheCardIsGoneAndAreKeptOnceTheFolderCanBeWritten) {
  writeFile(scratch_.path / "alarms", Bytes{1});
  list_->add(kInput, kChannel1);
  list_->add({4, 1, 771}, kChannel1);
  EXPECT_FALSE(list_->file().kept());
  EXPECT_EQ(std::ranges::count(said_, '\n'), 1) << said_;
  fs::remove(scratch_.path / "alarms");
  list_->add({4, 1, 771}, kChannel2);
  EXPECT_TRUE(list_->file().kept());
  const Lines before = history();
  powerUp();
  EXPECT_EQ(said_, "");
  EXPECT_EQ(history(), before);
  EXPECT_EQ(standing(), before);
  now_ = 2000;
  list_->add({4, 0, 769}, kChannel1);
  list_->add({4, 0, 769}, kChannel2);
  list_->setOwn(4, protocol::kAlarmRecordNotKept, true, {"not kept", "未保存"});
  Bytes file = readFile(file_);
  constexpr std::size_t kFourth = 8 + 3 * 352, kChannelAt = 25;
  file[kFourth + kChannelAt] = 0;  // as older versions have written it
  const u32 check = mpeg::crc32(std::span(file).subspan(kFourth + 4, 348));
  std::memcpy(&file[kFourth], &check, sizeof check);
  writeFile(file_, file);
  powerUp();
  list_->endAtPowerUp({0, 4});
  list_->matchInputs(0, 1);
  list_->matchInputs(4, 2);
  EXPECT_EQ(latest(4), (Lines{"x2000 2.1 769 Card3|Ch.1 Error|No Input 1000",
                              "02000 4.0 258 Card5|not kept|qam card 5: not kept 2000",
                              "+2000 0.1 769 Card1|Ch.1 Error|No Input 2000",
                              "02000 4.1 769 Card3|Ch.1 Error|No Input 2000"}));
  powerUp();
  EXPECT_EQ(standing().size(), 4U);
  list_->remove({4, 1, 771}, "Z", "OK");
  EXPECT_EQ(list_->history().back().number, 11U);
}

TEST_F(Alarms, KeepTheLastTenThousandEventsAndWhatStoodBefore) {
  list_->add({5, 0, 769}, kChannel1);
  for (int i = 0; i < 20'001; ++i) {
    ++now_;
    i % 2 == 0 ? list_->add(kInput, kChannel1) : list_->remove(kInput, "Z", "qam card 3 ch.1 input OK!");
  }
  const Lines stood = standing();
  EXPECT_EQ(stood.size(), 2U);
  for (const bool again : {false, true}) {
    if (again) powerUp();
    ASSERT_EQ(list_->history().size(), AlarmList::kHistory);
    std::uint64_t number = 20'003 - AlarmList::kHistory;
    for (const AlarmRecord& event : list_->history()) ASSERT_EQ(event.number, number++);
    EXPECT_EQ(standing(), stood);
  }
  EXPECT_LE(fs::file_size(file_), 20'000U * 352 + 8);
}

// Bytes of the second entry, whose check stays right.
void forge(Bytes& file, std::size_t at, std::size_t count, u8 value) {
  const std::span entry = std::span(file).subspan(8 + 352, 352);
  std::ranges::fill(entry.subspan(at, count), value);
  const u32 check = mpeg::crc32(entry.subspan(sizeof check));
  std::memcpy(entry.data(), &check, sizeof check);
}

TEST_F(Alarms, GoOnAfterDamage) {
  // What happened to the file between two power-ups, how many of three events are left, and what is said.
  const std::tuple<void (*)(Bytes&), std::size_t, const char*> rows[] = {
      {[](Bytes& b) { b.pop_back(); }, 2, "ends within an event"},
      {[](Bytes& b) { b[8 + 352 + 60] ^= 4; }, 2, "1 of 3 entries are lost"},
      {[](Bytes& b) { forge(b, offsetof(AlarmRecord, kind), 1, 5); }, 2, "1 of 3 entries are lost"},
      {[](Bytes& b) { forge(b, offsetof(AlarmRecord, number), 8, 0xFF); }, 2, "1 of 3 entries are lost"},
      {[](Bytes& b) { forge(b, 352 - 164, 164, 'x'); }, 2, "1 of 3 entries are lost"},
      {[](Bytes& b) { b.insert(b.end(), b.end() - 352, b.end()); }, 3, "1 of 4 entries are lost"},
      {[](Bytes& b) { b.assign(5000, 'x'); }, 0, "is no alarms' history"},
  };
  for (const auto& [change, left, says] : rows) {
    SCOPED_TRACE(says);
    fs::remove_all(file_.parent_path());
    powerUp();
    for (u8 port = 0; port < 3; ++port) list_->add({2, port, 769}, kChannel1);
    Bytes bytes = readFile(file_);
    change(bytes);
    writeFile(file_, bytes);
    powerUp();
    EXPECT_EQ(list_->history().size(), left);
    EXPECT_NE(said_.find(says), std::string::npos) << said_;
    EXPECT_EQ(fs::exists(file_.string() + ".damaged"), says != std::get<2>(rows[0])) << "kept aside";
    powerUp();  // nothing has happened since
    EXPECT_EQ(list_->history().size(), left);
    list_->add({1, 0, 770}, kChannel2);
    const Lines now = history();
    EXPECT_EQ(now.size(), left + 1);
    powerUp();
    EXPECT_EQ(history(), now);
    EXPECT_EQ(said_, "");
  }
}

}  // namespace
}  // namespace test
