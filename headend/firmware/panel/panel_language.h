// The language of the front panel, stored in the flash folder.
#pragma once

#include "headend/firmware/log.h"
#include "headend/kernel/flash.h"
#include "protocol/words.h"

namespace headend {

class PanelLanguage {
 public:
  // Reads the file. If it is missing, the language is English; also if it is damaged or cannot be read, which
  // `say` reports.
  PanelLanguage(Flash& flash, Say say);

  chassis::Language now() const { return now_; }
  // Changes to the next language and saves it. `say` reports a failure, after which the change lasts only
  // until the end of the run.
  void change();

 private:
  Flash& flash_;
  Say say_;
  chassis::Language now_ = chassis::Language::kEnglish;
};

}  // namespace headend
