// The chassis's back-end registry as the module's sources see it: qamcard/backend.h in namespace `chassis`.
#pragma once

#include "platform/types.h"
#include "qamcard/backend.h"
