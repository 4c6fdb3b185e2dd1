#include "headend/firmware/panel/panel_language.h"

#include <fmt/format.h>

#include <string>
#include <system_error>
#include <vector>

namespace headend {
namespace {

constexpr const char* kLanguageFile = "/tffs0/panel/language.txt";
constexpr std::size_t kLongestLanguage = 64;  // more than any name of a language

std::string contentFor(chassis::Language language) {
  return std::string(protocol::codeOf(language)) + '\n';
}

}  // namespace

PanelLanguage::PanelLanguage(Flash& flash, Say say) : flash_(flash), say_(std::move(say)) {
  try {
    const std::optional<std::string> stored = flash_.read(kLanguageFile, kLongestLanguage);
    if (!stored) return;
    for (const chassis::Language language : chassis::kLanguages) {
      if (*stored != contentFor(language)) continue;
      now_ = language;
      return;
    }
    say_(fmt::format("the panel begins in English: {} is damaged", kLanguageFile));
  } catch (const std::system_error& e) {
    say_(fmt::format("the panel begins in English: cannot read {}: {}", kLanguageFile, e.what()));
  }
}

void PanelLanguage::change() {
  now_ = protocol::next(now_);
  const std::string content = contentFor(now_);
  const std::string failure = flash_.replace(kLanguageFile, std::vector<u8>(content.begin(), content.end()));
  if (!failure.empty()) say_("the panel's language is not kept: " + failure);
}

}  // namespace headend
