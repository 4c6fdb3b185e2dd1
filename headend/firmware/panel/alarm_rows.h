// An active alarm as rows of the menu, in the languages of the panel.
#pragma once

#include <string>
#include <vector>

#include "headend/firmware/alarm_list.h"
#include "headend/firmware/panel/menu_screen.h"
#include "protocol/words.h"

namespace headend {

// Slot and title, and the content below.
MenuRow summaryOf(const AlarmRecord& raised, chassis::Language language);

std::string titleOf(const AlarmRecord& raised, chassis::Language language);

// All but the title. A long text continues in the next row.
std::vector<MenuRow> detailsOf(const AlarmRecord& raised, chassis::Language language);

}  // namespace headend
