#include "ui/qamStatus.h"

#include <cstdio>

#include "card/QamCardPara.h"
#include "card/QamFpga.h"
#include "hw/ad7414.h"
#include "platform/alarms.h"
#include "platform/chassis.h"
#include "platform/check.h"
#include "platform/gbk.h"
#include "platform/kernel.h"
#include "platform/mainboard.h"

namespace {

constexpr const char* kUnit = "qamStatus";
constexpr int kWatchdogTaskPriority = 232;
constexpr int kWatchdogTaskStack = 4096;

enum AlarmType : u16 { kInputLost = 769, kTooHot = 770, kRateOverflow = 771 };

constexpr u8 kWatchedSensor = 2;
constexpr u16 kHotFrom = 70;  // degrees

// A text of an alarm, with slot and port as an operator counts them.
class Text {
 public:
  Text(const char* format, u8 slotNo, u8 port = 0) {
    std::snprintf(text_, sizeof text_, format, slotNo + 1, port + 1);
  }
  operator const char*() const { return text_; }  // NOLINT(google-explicit-constructor)

 private:
  char text_[64];
};

struct Channel {
  u8 bit;  // in the lock register, and in the record's `status`
  const char* zhLost;
  const char* enLost;
  const char* zhBack;
  const char* enBack;
};
constexpr Channel kChannels[MAX_QAM_OUT_NUM] = {
    {0x01, "频点一错误"_gbk, "Ch.1 Error", "QAM卡%d频点一输入恢复正常"_gbk, "qam card %d ch.1 input OK!"},
    {0x02, "频点二错误"_gbk, "Ch.2 Error", "QAM卡%d频点二输入恢复正常"_gbk, "qam card %d ch.2 input OK!"},
};

// The record keeps what was raised, over a restart too if the record is saved meanwhile. Both channels raise
// with port 0; only the texts differ.
void checkInputs(u8 slotNo, QamCardPara* record) {
  const u8 status = record->qam_para.status;
  const u16 lost = QamFpgaIf[slotNo]->tslock;
  for (const Channel& channel : kChannels) {
    const bool isLost = (lost & channel.bit) != 0;
    const bool wasLost = (status & channel.bit) != 0;
    if (isLost && !wasLost) {
      record->qam_para.status |= channel.bit;
      chassis::AddAnAlarm(slotNo, 0, kInputLost, Text("卡%d"_gbk, slotNo), channel.zhLost,
                          Text("Card%d", slotNo), channel.enLost, "无输入"_gbk, "No Input");
    } else if (!isLost && wasLost) {
      record->qam_para.status &= static_cast<u8>(~channel.bit);
      chassis::DelAnAlarm(slotNo, 0, kInputLost, Text(channel.zhBack, slotNo), Text(channel.enBack, slotNo));
    }
  }
}

void checkTemperature(u8 slotNo) {
  // Below zero degrees the sensor's eight bits read as 192 and more, which is also too hot.
  const bool isHot = get_temper(slotNo, kWatchedSensor) >= kHotFrom;
  const bool wasHot = chassis::IsAlarmExist(slotNo, 0, kTooHot, 0) != 0;
  // One threshold for both directions: the log must show every crossing.
  if (isHot && !wasHot) {
    chassis::AddAnAlarm(slotNo, 0, kTooHot, Text("调制卡%d"_gbk, slotNo), "温度过高"_gbk,
                        Text("QAM Card%d", slotNo), "High Temperature", "温度过高"_gbk, "High Temperature");
  } else if (!isHot && wasHot) {
    chassis::DelAnAlarm(slotNo, 0, kTooHot, Text("调制卡%d温度恢复正常"_gbk, slotNo),
                        Text("qam card %d normal temperature", slotNo));
  }
}

void checkRates(u8 slotNo) {
  for (u8 port = 0; port < MAX_QAM_OUT_NUM; ++port) {
    // The register has 16 bits: a number from 16 on names none of them.
    const u8 output = chassis::out_port_to_mbrd_out(slotNo, port);
    const u16 word = chassis::pbbFpgaIf->rate_overflow;
    const bool overflows = output < 16 && ((word >> output) & 1) != 0;
    const bool isRaised = chassis::IsAlarmExist(slotNo, port, kRateOverflow, 0) != 0;
    if (overflows) {
      // The whole check ends: while the first port's alarm is active, the second's waits.
      if (isRaised) return;
      chassis::AddAnAlarm(slotNo, port, kRateOverflow, Text("卡%d端口%d"_gbk, slotNo, port), "码率溢出"_gbk,
                          Text("Card%dPort%d", slotNo, port), "rate overflow",
                          Text("调制卡%d端口%d码率溢出"_gbk, slotNo, port),
                          Text("QAM Card%d port%d rate overflow", slotNo, port));
    } else if (isRaised) {
      chassis::DelAnAlarm(slotNo, port, kRateOverflow, Text("调制卡%d端口%d码率恢复"_gbk, slotNo, port),
                          Text("QAM Card%d port%d rate resume", slotNo, port));
    }
  }
}

int watchdogEntry(int, int, int, int, int, int, int, int, int, int) {
  taskDQamSysCheck();
  return 0;
}

}  // namespace

void qamStatusCheck(u8 slotNo) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit, 23);
  QamCardPara* record = GetQamCardParaFromList(slotNo);
  if (record == nullptr) return;
  checkInputs(slotNo, record);
  checkTemperature(slotNo);
  checkRates(slotNo);
}

int qam_create_status(u8 /*slotNo*/) {
  return 0;
}

void taskDQam() {
  os::taskSpawn("tDQamSysCheck", kWatchdogTaskPriority, 0, kWatchdogTaskStack, watchdogEntry, 0, 0, 0, 0, 0,
                0, 0, 0, 0, 0);
}

void taskDQamSysCheck() {
  u8 kicks[5] = {};  // for a debugger only
  for (;;) {
    os::sleepMilliseconds(1000);
    for (u8& count : kicks) {
      chassis::Dog();
      ++count;
    }
  }
}
