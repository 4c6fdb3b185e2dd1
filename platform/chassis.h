// The chassis's main firmware as the module's sources see it: qamcard/chassis.h in namespace `chassis`.
#pragma once

#include "platform/numbers.h"
#include "platform/panel.h"
#include "qamcard/chassis.h"
