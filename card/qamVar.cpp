#include "card/qamVar.h"

#include <cstdio>

#include "card/QamFpga.h"
#include "hw/Qam_set.h"
#include "hw/ad7414.h"
#include "hw/adf4113.h"
#include "platform/address_word.h"
#include "platform/chassis.h"
#include "platform/check.h"

os::SEM_ID semQamVar;
QamCardPara QamPara;
AD9775_Para Para9775;

namespace {

constexpr const char* kUnit = "qamVar";
constexpr int kNotWritable = -2;

u32 rateText(u8 slotNo, u8 port, bool payload, char (&text)[16]) {
  u32 total = 0;
  u32 valid = 0;
  FpgaGetRate(slotNo, port, &total, &valid);
  std::snprintf(text, sizeof text, "%dKb/s", static_cast<int>((payload ? valid : total) / 1000));
  return os::addressWord(text);
}

u32 versionText(const char* version, char (&text)[16]) {
  std::snprintf(text, sizeof text, "%s", version);
  return os::addressWord(text);
}

u32 fpgaVersionText(u8 slotNo, char (&text)[16]) {
  const int version = (QamFpgaIf[slotNo]->version & 0xFF) % 100;
  std::snprintf(text, sizeof text, "%s.%02d", "V2.1", version);
  return os::addressWord(text);
}

u32 read(u8 slotNo, u32 vid, const QamParaS& settings) {
  static char text[16];
  switch (vid) {
    case kVarFrequency:
      return settings.rfreq;
    case kVarFrequency2:
      return settings.rfreq + kChannelSpacing_kHz;
    case kVarLevel:
    case kVarLevel2:
      return settings.rflevel;
    case kVarSymbolRate:
    case kVarSymbolRate2:
      return settings.symbolrate;
    case kVarConstellation:
    case kVarConstellation2:
      return settings.qammode;
    case kVarQamSwitch:
    case kVarQamSwitch2:
      return settings.rfswitch;
    case kVarPower:
    case kVarPower2:
      return settings.power;
    case kVarTotalRate1:
      return rateText(slotNo, 0, false, text);
    case kVarPayloadRate1:
      return rateText(slotNo, 0, true, text);
    case kVarTotalRate2:
      return rateText(slotNo, 1, false, text);
    case kVarPayloadRate2:
      return rateText(slotNo, 1, true, text);
    case kVarTemperature1:
      return get_temper(slotNo, 1);
    case kVarTemperature2:
      return get_temper(slotNo, 2);
    case kVarSoftwareVersion:
      return versionText("V2.1.05A", text);
    case kVarFpgaVersion:
      return fpgaVersionText(slotNo, text);
    case kVarHardwareVersion:
      return versionText("V1.0", text);
    default:
      return 0;
  }
}

// Stores a setting. False if the field has that value already. Byte fields are compared before they are cut
// to their width.
template <typename Field>
bool replace(Field& field, u32 value) {
  if (field == value) return false;
  field = static_cast<Field>(value);
  return true;
}

enum class Outcome { kUnchanged, kChanged, kRefused };
// The older setter does not reset the modulator.
enum class AfterConstellation { kReset, kLeaveRunning };

// Compares a setting with its field, stores it and drives the hardware.
Outcome set(u8 slotNo, u32 vid, u32 value, QamParaS& settings, cdce925_para* clockTable,
            AfterConstellation afterConstellation) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  switch (vid) {
    case kVarFrequency:
      if (!replace(settings.rfreq, value)) return Outcome::kUnchanged;
      SetFreq(slotNo, value);
      SetRfLevel(slotNo, static_cast<u16>(settings.rflevel));  // its correction may have changed
      return Outcome::kChanged;
    case kVarLevel:
      if (!replace(settings.rflevel, value)) return Outcome::kUnchanged;
      SetRfLevel(slotNo, static_cast<u16>(value));
      return Outcome::kChanged;
    case kVarSymbolRate:
      if (!replace(settings.symbolrate, value)) return Outcome::kUnchanged;
      cdce925set(slotNo, value, clockTable);
      symbolrateinfpga(static_cast<i32>(value), slotNo);
      return Outcome::kChanged;
    case kVarConstellation:
      if (!replace(settings.qammode, value)) return Outcome::kUnchanged;
      window->qam_mode = static_cast<u16>(value);
      if (afterConstellation == AfterConstellation::kReset) Qam_ResetAll(slotNo);
      return Outcome::kChanged;
    case kVarQamSwitch:
      if (!replace(settings.rfswitch, value)) return Outcome::kUnchanged;
      window->rf0_en = static_cast<u16>(value);
      return Outcome::kChanged;
    case kVarPower:
      if (!replace(settings.power, value)) return Outcome::kUnchanged;
      window->power = static_cast<u16>(value);
      return Outcome::kChanged;
    case kVarPower2:  // accepted without an effect
      return Outcome::kUnchanged;
    default:
      return Outcome::kRefused;
  }
}

}  // namespace

u32 QamGetVar(u8 slotNo, u8 /*portNo*/, u32 vid, u8** /*str*/) {
  os::semTake(semQamVar, os::WAIT_FOREVER);
  const QamCardPara* record = GetQamCardParaFromList(slotNo);
  // The semaphore stays taken, here and in the setters: from then on other tasks wait for it permanently; its
  // owner may take it again.
  if (record == nullptr) return 0;
  const u32 value = read(slotNo, vid, record->qam_para);
  os::semGive(semQamVar);
  return value;
}

int QamSetVar(u8 slotNo, u8 /*portNo*/, u32 vid, u32 value) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit, 478);
  os::semTake(semQamVar, os::WAIT_FOREVER);
  QamCardPara* record = GetQamCardParaFromList(slotNo);
  if (record == nullptr) return -1;
  // The semaphore stays taken for this number too.
  if (vid == kVarKeepsLock) return 1;

  const Outcome outcome =
      set(slotNo, vid, value, record->qam_para, record->Cd925_para, AfterConstellation::kReset);
  if (outcome == Outcome::kChanged) chassis::para_save(slotNo);
  os::semGive(semQamVar);
  return outcome == Outcome::kRefused ? kNotWritable : 0;
}

void QamSetVar1(u8 slotNo, u8 /*portNo*/, u32 vid, u32 value) {
  os::semTake(semQamVar, os::WAIT_FOREVER);
  QamCardPara* record = GetQamCardParaFromList(slotNo);
  if (record == nullptr) return;
  // The clock table is that of the record without a slot, which a debug shell may fill; the slot's own is not
  // used.
  const Outcome outcome =
      set(slotNo, vid, value, record->qam_para, QamPara.Cd925_para, AfterConstellation::kLeaveRunning);
  if (outcome == Outcome::kChanged) chassis::para_save(slotNo);
  os::semGive(semQamVar);
}
