// What the module needs from the real-time kernel: tasks, delays, message queues, semaphores. C linkage, so
// that the kernel's own functions satisfy these declarations. Unless a comment says otherwise, any task may
// call a function, and no interrupt routine may. If a header of the kernel declares these names, define
// QAM_KERNEL_HEADER as its name, in quotes or angle brackets: it is then included instead.
#pragma once

#include "qamcard/types.h"

#ifdef QAM_KERNEL_HEADER
#include QAM_KERNEL_HEADER
#else

QAM_BEGIN(os)

// Results are 0 or ERROR, which is -1. A time-out counts ticks of the system clock: 0 does not wait, -1 has
// no limit.

typedef struct MsgQ* MSG_Q_ID;
typedef struct Semaphore* SEM_ID;
typedef int (*FUNCPTR)(int, int, int, int, int, int, int, int, int, int);

// Starts a task; priority 0 (highest) to 255, stack in bytes. Returns the task's id, or ERROR.
int taskSpawn(const char* name, int priority, int options, int stackSize, FUNCPTR entry, int arg1, int arg2,
              int arg3, int arg4, int arg5, int arg6, int arg7, int arg8, int arg9, int arg10);

// Sleeps for `ticks` of the system clock: until that many ticks have occurred, so the first may occur at
// once. 0 lets other ready tasks of the same priority run.
int taskDelay(int ticks);

// While locked, no other task runs unless the caller blocks. Nests.
int taskLock(void);
int taskUnlock(void);

int sysClkRateGet(void);  // ticks per second of the system clock; interrupt routines may call it too

// A queue of at most `maxMsgs` messages of at most `maxMsgLength` bytes; null if there is no memory. With
// option 1, waiting receivers are served by the priority of their tasks.
MSG_Q_ID msgQCreate(int maxMsgs, int maxMsgLength, int options);
// ERROR if the queue stays full for `timeout` ticks, or is null. Interrupt routines may send without waiting.
int msgQSend(MSG_Q_ID queue, char* buffer, unsigned length, int timeout, int priority);
// The message's length; ERROR if none arrived within `timeout` ticks, or the queue is null.
int msgQReceive(MSG_Q_ID queue, char* buffer, unsigned maxLength, int timeout);

// ERROR if the semaphore is not available within `timeout` ticks, or is null.
int semTake(SEM_ID semaphore, int timeout);
int semGive(SEM_ID semaphore);

QAM_END

#endif
