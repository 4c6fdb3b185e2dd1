#include "ts/qamPidMap.h"

#include <algorithm>

#include "platform/chassis.h"
#include "platform/check.h"
#include "platform/router_word.h"

u8 qam_pidmap_lock_status[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];

namespace {

using namespace qam_back;  // NOLINT(google-build-using-namespace)

constexpr const char* kUnit = "qamBack";  // in failed checks: the back end is one unit

// A parameter file may claim more than there is room for.
u32 mapSize(const QamCardPara& para, u8 port) {
  return std::min<u32>(para.pidMapNum[port], kPidMapSize);
}

u32 sourceKey(const pidmap_t& entry) {
  return chassis::sourceKey(entry.src_slotNo, entry.src_port, entry.src_pid);
}

// Another sort would leave entries with equal keys in another order, and the router may take another one of
// them.
void sortBySource(pidmap_t* map, u32 size) {
  for (u32 i = 0; i < size; ++i) {
    for (u32 j = i + 1; j < size; ++j) {
      if (sourceKey(map[i]) > sourceKey(map[j])) std::swap(map[i], map[j]);
    }
  }
}

int checkSource(const pid_map_t& entry) {
  if (entry.src_slot >= MAX_BOARD_NUM) return kBadSource;
  const chassis::card* source = chassis::GetCardPoint(static_cast<u8>(entry.src_slot));
  if (source == nullptr) return kNoCard;
  return entry.src_port < source->in_port_num ? kDone : kBadSource;
}

void store(const pid_map_t& from, pidmap_t& to) {
  to.src_pid = from.src_pid;
  to.src_port = static_cast<u8>(from.src_port);
  to.src_slotNo = static_cast<u8>(from.src_slot);
  to.dst_pid = from.dst_pid;
  to.type = static_cast<u8>(from.type);
  to.src_progNo = from.src_prog_no;
  to.dst_progNo = from.dst_prog_no;
}

void report(const pidmap_t& from, pid_map_t& to) {
  to.src_slot = from.src_slotNo;
  to.type = from.type;
  to.src_port = from.src_port;
  to.src_prog_no = from.src_progNo;
  to.dst_prog_no = from.dst_progNo;
  to.src_pid = from.src_pid;
  to.dst_pid = from.dst_pid;
}

}  // namespace

int QamSetPidMap(u8 slotNo, u8 port, QamCardPara* ptr) {
  const u32 used = mapSize(*ptr, port);
  for (u16 i = 0; i < kPidMapSize; ++i) {
    const pidmap_t& entry = ptr->pidMap[port][i];
    const chassis::RouterWords words =
        i < used ? chassis::routerWords(entry.src_slotNo, entry.src_port, entry.src_pid, entry.dst_pid)
                 : chassis::kUnusedPosition;
    chassis::set_one_map(slotNo, port, i, words.data());
  }
  return 0;
}

int QamPidMapSetLock(u8 slotNo, u8 port, QamCardPara* ptr, u32 lock_switch) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo < MAX_BOARD_NUM", kUnit);
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);

  u8& locked = qam_pidmap_lock_status[slotNo][port];
  if (lock_switch != 0) {
    if (locked == 1) return 0;
    locked = 1;
    ptr->pidMapNum[port] = 0;
    qam_set_default_pidmap(slotNo, port, ptr);
  } else {
    if (locked == 0) return 0;
    locked = 0;
    sortBySource(ptr->pidMap[port], mapSize(*ptr, port));
    chassis::para_save(slotNo);
    QamSetPidMap(slotNo, port, ptr);
    // The second port's unlock saves twice, with the same content.
    if (port == 1) chassis::para_save(slotNo);
  }
  return 0;
}

int QamSavePidMap(u8 port, QamCardPara* ptr, const set_pid_map_t* v) {
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);

  const u32 total = v->total_num;
  const u32 start = v->start_pos;
  const u32 count = std::min<u32>(v->this_num, kMapEntriesPerChunk);
  if (total > kPidMapSize) return kMapTooLong;
  // A stray chunk, such as a repeated chunk of an aborted upload, is no reason to fail this upload.
  if (start >= kPidMapSize || start + count > total) return kDone;

  ptr->pidMapNum[port] = total;
  for (u32 i = 0; i < count; ++i) {
    if (const int result = checkSource(v->pidmap[i]); result != kDone) return result;
    store(v->pidmap[i], ptr->pidMap[port][start + i]);
  }
  return kDone;
}

int QamGetPidMap(u8 port, u32 StartPos, QamCardPara* ptr, set_pid_map_t* v) {
  const u32 size = mapSize(*ptr, port);
  const u32 count = StartPos < size ? std::min(size - StartPos, kMapEntriesPerChunk) : 0;
  v->total_num = size;
  v->start_pos = StartPos;
  v->this_num = count;
  for (u32 i = 0; i < count; ++i) report(ptr->pidMap[port][StartPos + i], v->pidmap[i]);
  return 0;
}
