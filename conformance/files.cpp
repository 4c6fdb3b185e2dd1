// Files of the flash, and the saving of the slot's record.
#include "platform/files.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>

#include "card/QamCardPara.h"
#include "conformance/checks.h"
#include "conformance/helpers.h"
#include "platform/chassis.h"

namespace conformance {
namespace {

constexpr std::size_t kSize = sizeof(QamCardPara);

struct {
  u8 slotNo;
  volatile bool ends;
  volatile int whole, partial;  // reads of the record's file
} watch;

// The slot's parameter file, or one named like it with another end.
std::FILE* openRecord(u8 slotNo, const char* mode, const char* end = ".dat") {
  char path[40];
  std::snprintf(path, sizeof path, "/tffs0/para/card%d%s", slotNo + 1, end);
  return os::fopen(path, mode);
}

bool isOpened(std::FILE* file) {
  if (file != nullptr) std::fclose(file);
  return file != nullptr;
}

// Whether the file has the record's size and content.
bool holdsRecord(u8 slotNo, const u8* record) {
  std::FILE* file = openRecord(slotNo, "rb+");
  if (file == nullptr) return false;
  u8 part[64];
  std::size_t done = 0;
  while (done < kSize) {
    const std::size_t length = std::min(sizeof part, kSize - done);
    if (std::fread(part, 1, length, file) < length || std::memcmp(part, record + done, length) != 0) break;
    done += length;
  }
  const bool ends = std::fread(part, 1, 1, file) == 0;
  std::fclose(file);
  return done == kSize && ends;
}

int watchRecord(int, int, int, int, int, int, int, int, int, int) {
  while (!watch.ends) {
    std::FILE* file = openRecord(watch.slotNo, "rb+");
    std::size_t size = 0;
    if (file != nullptr) {
      std::fseek(file, 0, SEEK_END);
      size = static_cast<std::size_t>(std::ftell(file));
      std::fclose(file);
    }
    if (size == kSize)
      watch.whole = watch.whole + 1;
    else
      watch.partial = watch.partial + 1;
    os::taskDelay(1);
  }
  return 0;
}

}  // namespace

void checkMissingFile(Seen& seen, u8 slotNo) {
  const char* const end = ".non";
  seen << (isOpened(openRecord(slotNo, "rb+", end)) ? "opened" : "null");
  seen << (isOpened(openRecord(slotNo, "rb", end)) ? ", created" : ", not created");
}

void checkShortRead(Seen& seen, u8 slotNo) {
  constexpr long kLeft = 30;
  std::FILE* file = openRecord(slotNo, "rb+");
  if (file == nullptr) {
    seen << "no record";
    return;
  }
  std::fseek(file, static_cast<long>(kSize) - kLeft, SEEK_SET);
  char buffer[2 * kLeft];
  for (int i = 0; i < 2; ++i) seen.next() << static_cast<int>(std::fread(buffer, 1, sizeof buffer, file));
  std::fclose(file);
}

void checkSeek(Seen& seen, u8 slotNo) {
  std::FILE* file = openRecord(slotNo, "rb+");
  if (file == nullptr) {
    seen << "no record";
    return;
  }
  std::fseek(file, 0, SEEK_END);
  seen << static_cast<int>(std::ftell(file) - static_cast<long>(kSize)) << ", ";
  std::fseek(file, 0, SEEK_SET);
  seen << static_cast<int>(std::ftell(file)) << ", ";
  u8 head[8] = {};
  std::fread(head, 1, sizeof head, file);
  seen << static_cast<int>(std::ftell(file)) << ", " << (head[0] == QAM_CARD_TYPE ? "a record" : "no record");
  std::fclose(file);
}

// A reserved byte of the record changes, so that a save that writes nothing is seen.
void checkSave(Seen& seen, u8 slotNo) {
  auto* record = static_cast<QamCardPara*>(chassis::GetCardPoint(slotNo)->varPtr);
  for (int i = 0; i < 2; ++i) {
    record->reserved ^= 0xFF;
    seen.next() << chassis::para_save(slotNo);
    seen << (holdsRecord(slotNo, reinterpret_cast<const u8*>(record)) ? " saved" : " not saved");
  }
}

void checkSaveWhole(Seen& seen, u8 slotNo) {
  watch = {.slotNo = slotNo, .ends = false, .whole = 0, .partial = 0};
  spawn(kHigher, watchRecord);
  chassis::para_save(slotNo);
  os::taskDelay(2);
  watch.ends = true;
  os::taskDelay(2);
  seen << (watch.whole > 0 ? "whole" : "never whole");
  if (watch.partial > 0) seen << ", partial " << watch.partial << " times";
}

void checkLeftFiles(Seen& seen, u8 slotNo) {
  chassis::para_save(slotNo);
  bool none = true;
  for (const char* end : {".dat.new", ".dat.tmp", ".new", ".tmp"}) {
    if (!isOpened(openRecord(slotNo, "rb", end))) continue;
    seen.next() << end;
    none = false;
  }
  if (none) seen << "none";
}

}  // namespace conformance
