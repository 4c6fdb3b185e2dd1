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

bool isSetting(u32 vid) {
  return vid >= kVarFrequency && vid <= kVarPower;
}

// Whether the field held another value. Byte fields are compared before they are cut to their width.
template <typename Field>
bool replace(Field& field, u32 value) {
  if (field == value) return false;
  field = static_cast<Field>(value);
  return true;
}

bool store(QamParaS& settings, u32 vid, u32 value) {
  switch (vid) {
    case kVarFrequency:
      return replace(settings.rfreq, value);
    case kVarLevel:
      return replace(settings.rflevel, value);
    case kVarSymbolRate:
      return replace(settings.symbolrate, value);
    case kVarConstellation:
      return replace(settings.qammode, value);
    case kVarQamSwitch:
      return replace(settings.rfswitch, value);
    default:
      return replace(settings.power, value);
  }
}

// Firmware that still calls the older setter resets the modulator itself.
enum class AfterConstellation { kReset, kLeaveRunning };

void apply(u8 slotNo, u32 vid, u32 value, const QamParaS& settings, cdce925_para* clockTable,
           AfterConstellation afterConstellation) {
  Qam_fpga_if* window = QamFpgaIf[slotNo];
  switch (vid) {
    case kVarFrequency:
      SetFreq(slotNo, value);
      SetRfLevel(slotNo, static_cast<u16>(settings.rflevel));  // its correction may have changed
      break;
    case kVarLevel:
      SetRfLevel(slotNo, static_cast<u16>(value));
      break;
    case kVarSymbolRate:
      cdce925set(slotNo, value, clockTable);
      symbolrateinfpga(static_cast<i32>(value), slotNo);
      break;
    case kVarConstellation:
      window->qam_mode = static_cast<u16>(value);
      if (afterConstellation == AfterConstellation::kReset) Qam_ResetAll(slotNo);
      break;
    case kVarQamSwitch:
      window->rf0_en = static_cast<u16>(value);
      break;
    default:
      window->power = static_cast<u16>(value);
      break;
  }
}

}  // namespace

u32 QamGetVar(u8 slotNo, u8 /*portNo*/, u32 vid, u8** /*str*/) {
  os::semTake(semQamVar, os::WAIT_FOREVER);
  const QamCardPara* record = GetQamCardParaFromList(slotNo);
  // The semaphore stays taken, here and in the setters: a chassis that asks for a card without a record must
  // stop at its next request, where the error is found, and must not continue with invalid values.
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
  // A loader once took over from the running firmware here: it needs the card unused from then on.
  if (vid == kVarKeepsLock) return 1;

  int result = 0;
  if (isSetting(vid)) {
    if (store(record->qam_para, vid, value)) {
      apply(slotNo, vid, value, record->qam_para, record->Cd925_para, AfterConstellation::kReset);
      chassis::para_save(slotNo);
    }
  } else if (vid !=
             kVarPower2) {  // menus set channel 2's switch together with channel 1's, so this must not fail
    result = kNotWritable;
  }
  os::semGive(semQamVar);
  return result;
}

void QamSetVar1(u8 slotNo, u8 /*portNo*/, u32 vid, u32 value) {
  os::semTake(semQamVar, os::WAIT_FOREVER);
  QamCardPara* record = GetQamCardParaFromList(slotNo);
  if (record == nullptr) return;
  if (isSetting(vid) && store(record->qam_para, vid, value)) {
    // The clock table is in the global record, which a debug shell fills with trial rows; a trial changes no
    // slot's table.
    apply(slotNo, vid, value, record->qam_para, QamPara.Cd925_para, AfterConstellation::kLeaveRunning);
    chassis::para_save(slotNo);
  }
  os::semGive(semQamVar);
}
