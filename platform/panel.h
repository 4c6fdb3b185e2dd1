// The chassis's front panel as the module's sources see it: qamcard/panel.h in namespace `chassis`, languages
// and labels.
#pragma once

#include "platform/gbk.h"
#include "platform/types.h"
#include "qamcard/panel.h"

namespace chassis {

// The languages of labels, in the order in which an operator changes from one to the next.
enum class Language : u8 { kEnglish, kChinese };
inline constexpr Language kLanguages[] = {Language::kEnglish, Language::kChinese};

inline Label& label(item_t& item, Language language) {
  return language == Language::kChinese ? item.zh : item.en;
}
inline const Label& label(const item_t& item, Language language) {
  return language == Language::kChinese ? item.zh : item.en;
}

// Attributes of lines and headings.
inline constexpr u32 kPanelValue = 0x10000000;
inline constexpr int kPanelWholeLine = 0x20000000;  // instead of a column: redraws the line from column 0

}  // namespace chassis

// A label's text in the panel's encoding. A text that does not fit with its final zero is a compile error.
template <gbk::Utf8 S>
constexpr chassis::Label operator""_label() {
  static_assert(gbk::kConverted<S>.length() < sizeof(chassis::Label));
  chassis::Label label{};
  for (std::size_t i = 0; i < gbk::kConverted<S>.length(); ++i) label.text[i] = gbk::kConverted<S>.text[i];
  return label;
}
