// The checks, one function a row of the table. Each appends to `seen` what the service of the slot's chassis
// has done. Called in a task of priority kOwn.
#pragma once

#include "conformance/seen.h"
#include "platform/types.h"

namespace conformance {

using Check = void(Seen& seen, u8 slotNo);
using Missing = bool(u8 slotNo);  // whether the chassis lacks what a check needs

Check checkTaskArguments, checkPriorities, checkLock, checkDelay, checkYield, checkClockRate;
Check checkOrder, checkLength, checkFull, checkEmpty, checkReceiverWaits, checkReceiverFirst;
Check checkSendFromInterrupt, checkNoQueue;
Check checkOwnerAgain, checkOtherWaits, checkNoSemaphore;
Check checkNoMemory, checkAlignment, checkFreeNull;
Check checkMissingFile, checkShortRead, checkSeek, checkSave, checkSaveWhole, checkLeftFiles;
Check checkKeyScan, checkLongText;
Check checkCompare, checkParseString, checkParseNumber;
Check checkScratchRegisters;

Missing lacksInterrupt, lacksSemaphore, lacksWindow;

}  // namespace conformance
