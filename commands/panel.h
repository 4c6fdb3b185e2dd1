// The front panel as JSON.
#pragma once

#include "commands/json_fields.h"
#include "protocol/panel.h"

namespace commands {

// {"rows": the texts, "inverse": the inverse characters, each with row and x (pixels), "pixels": the rows of
// pixels, each as hexadecimal digits, the leftmost pixel first}.
Json lcdJson(const protocol::LcdImage& lcd);

}  // namespace commands
