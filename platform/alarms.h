// The chassis's alarm list as the module's sources see it: qamcard/alarms.h in namespace `chassis`.
#pragma once

#include "platform/types.h"
#include "qamcard/alarms.h"
