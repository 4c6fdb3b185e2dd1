// What the module needs from the real-time kernel: tasks, delays, message queues, semaphores, counting loops.
// C linkage, so that the kernel's own functions satisfy these declarations. Unless a comment says otherwise,
// any task may call a function, and no interrupt routine may.
#pragma once

#include "platform/types.h"

namespace os {

inline constexpr int OK = 0;
inline constexpr int ERROR = -1;
inline constexpr int NO_WAIT = 0;
inline constexpr int WAIT_FOREVER = -1;
inline constexpr int MSG_PRI_NORMAL = 0;
inline constexpr int MSG_Q_PRIORITY = 1;  // waiting receivers are served by task priority

struct MsgQ;
struct Semaphore;
using MSG_Q_ID = MsgQ*;
using SEM_ID = Semaphore*;
using FUNCPTR = int (*)(int, int, int, int, int, int, int, int, int, int);

extern "C" {

// Starts a task; priority 0 (highest) to 255, stack in bytes. Returns the task's id, or ERROR.
int taskSpawn(const char* name, int priority, int options, int stackSize, FUNCPTR entry, int arg1, int arg2,
              int arg3, int arg4, int arg5, int arg6, int arg7, int arg8, int arg9, int arg10);

// Sleeps for `ticks` of the system clock: until that many ticks have occurred, so the first may occur at
// once. 0 lets other ready tasks of the same priority run.
int taskDelay(int ticks);

// While locked, no other task runs unless the caller blocks. Nests.
int taskLock();
int taskUnlock();

int sysClkRateGet();  // ticks per second of the system clock; interrupt routines may call it too

// A queue of at most `maxMsgs` messages of at most `maxMsgLength` bytes; null if there is no memory.
MSG_Q_ID msgQCreate(int maxMsgs, int maxMsgLength, int options);
// ERROR if the queue stays full for `timeout` ticks, or is null. Interrupt routines may send with NO_WAIT.
int msgQSend(MSG_Q_ID queue, char* buffer, unsigned length, int timeout, int priority);
// The message's length; ERROR if none arrived within `timeout` ticks, or the queue is null.
int msgQReceive(MSG_Q_ID queue, char* buffer, unsigned maxLength, int timeout);

// ERROR if the semaphore is not available within `timeout` ticks, or is null.
int semTake(SEM_ID semaphore, int timeout);
int semGive(SEM_ID semaphore);

}  // extern "C"

// Sleeps for whole ticks of the system clock: 10 ms are one tick at 100 Hz; shorter is no tick at all.
inline void sleepMilliseconds(int milliseconds) {
  taskDelay(sysClkRateGet() * milliseconds / 1000);
}

// A pause of `turns` turns of an empty loop, kept at every optimisation level.
#ifdef QAM_VIRTUAL_BUS
void countingLoop(u32 turns);
#else
inline void countingLoop(u32 turns) {
  for (u32 i = 0; i < turns; ++i) asm volatile("");
}
#endif

}  // namespace os
