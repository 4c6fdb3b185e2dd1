// lcd, key and panel: the front panel, from a script and on a terminal.
#include <fmt/format.h>
#include <png.h>

#include <stdexcept>
#include <vector>

#include "client/chassis_services.h"
#include "commands/command.h"
#include "commands/panel.h"

namespace commands {
namespace {

constexpr std::chrono::milliseconds kBetweenKeys{20};  // gives the menu time, as a user's fingers do
constexpr int kScale = 4;                              // pixels of the picture per LCD pixel
constexpr int kFrame = 16;
constexpr u8 kPixelColours[] = {0xB8, 0xD0, 0x40, 0x18, 0x28, 0x10, 0x40, 0x48, 0x50};  // RGB: off, on, frame
enum Colour : u8 { kOff, kOn, kFrameColour };

// An 8-bit picture with a palette, whole or not at all.
std::vector<u8> pngOf(const protocol::LcdImage& lcd) {
  constexpr int kWidth = protocol::kLcdWidth * kScale + 2 * kFrame;
  constexpr int kHeight = protocol::kLcdHeight * kScale + 2 * kFrame;
  std::vector<u8> picture(std::size_t{kWidth} * kHeight, kFrameColour);
  for (int y = 0; y < protocol::kLcdHeight * kScale; ++y) {
    for (int x = 0; x < protocol::kLcdWidth * kScale; ++x) {
      const int at = (y + kFrame) * kWidth + kFrame + x;
      picture[static_cast<std::size_t>(at)] = lcd.pixel(x / kScale, y / kScale) ? kOn : kOff;
    }
  }
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = kWidth;
  image.height = kHeight;
  image.format = PNG_FORMAT_RGB_COLORMAP;
  image.colormap_entries = sizeof kPixelColours / 3;
  png_alloc_size_t size = 0;
  const auto write = [&](void* memory) {
    if (png_image_write_to_memory(&image, memory, &size, 0, picture.data(), 0, kPixelColours) == 0)
      throw std::runtime_error(fmt::format("cannot make the picture: {}", image.message));
  };
  write(nullptr);  // to get its size
  std::vector<u8> png(size);
  write(png.data());
  return png;
}

struct Lcd final : Command {
  void describe(Form& form) override {
    takeFile(form, Option("--png", "FILE", "save it as a picture in FILE instead"), picture_, true);
    takeJson(form);
    form.footer(
        "A > marks the chosen row. Other characters that are inverse, as the digit under an editor's cursor, "
        "are in\n"
        "[brackets]. With --json the rows are without these marks, and \"inverse\" lists the characters; "
        "\"pixels\" has\nthe rows of pixels in hexadecimal digits.");
  }

  void carryOut(Session& session) override {
    const protocol::LcdImage lcd = client::readLcd(session.link());
    if (!picture_.empty()) saveFile(picture_, pngOf(lcd));
    if (json) return session.print(jsonText(lcdJson(lcd)));
    if (!picture_.empty()) return;
    for (int row = 0; row < protocol::kLcdRows; ++row) session.print(lcd.markedText(row) + "\n");
  }

  std::string picture_;
};

struct Key final : Command {
  void describe(Form& form) override {
    form.values(Option("KEY", "", "up, down, left, right, ok or cancel").required().count(1, kAny), keys_,
                [](const std::string& name) {
                  return valid(protocol::keyOf(name), name, "key: up, down, left, right, ok or cancel");
                });
    form.footer(
        "The panel takes keys as fast as its menu can; up to 64 wait for it. If one is refused, the message "
        "says how many were taken.\n"
        "\nExample: qamctl key down ok");
  }

  void carryOut(Session& session) override {
    std::size_t taken = 0;
    for (const chassis::PanelKey key : keys_) {
      try {
        client::pressKey(session.link(), key);
      } catch (const client::Error& e) {
        const bool unknown = e.gotNoReply();
        throw client::Error(fmt::format("{} of {} keys were taken{}: {}", taken, keys_.size(),
                                        unknown ? ", perhaps one more" : "", e.what()),
                            unknown ? client::Error::Kind::kNoReply : client::Error::Kind::kFailed);
      }
      ++taken;
      session.pause(kBetweenKeys);
    }
  }

  std::vector<chassis::PanelKey> keys_;
};

struct PanelOnTerminal final : Command {
  void describe(Form& form) override {
    form.integer(Option("--patience", "S", "seconds without an answer after which it ends"), patience_s_, 1,
                 86'400);
    form.footer(
        "Keys: the arrow keys, Enter and Esc are the panel's own; l changes the language of the alarms, p "
        "shows the\n"
        "LCD by its pixels where there is room, q, F10 and Ctrl-C quit. The headend goes on.\n"
        "\nExample: qamctl --server 192.0.2.7:49160 panel");
  }
  void carryOut(Session& session) override { session.showPanel(std::chrono::seconds(patience_s_)); }

  unsigned patience_s_ = 30;
};

}  // namespace

Json lcdJson(const protocol::LcdImage& lcd) {
  Json rows = Json::array(), inverse = Json::array(), pixels = Json::array();
  for (int row = 0; row < protocol::kLcdRows; ++row) rows.push_back(lcd.text(row));
  for (const protocol::LcdCharacter& c : lcd.characters) {
    if (c.inverse) inverse.push_back({{"row", c.row}, {"x", c.x}});
  }
  for (int y = 0; y < protocol::kLcdHeight; ++y) {
    std::string digits;
    for (int x = 0; x < protocol::kLcdWidth; x += 4) {
      unsigned four = 0;
      for (int i = 0; i < 4; ++i) four = four << 1U | (lcd.pixel(x + i, y) ? 1U : 0U);
      digits += "0123456789abcdef"[four];
    }
    pixels.push_back(std::move(digits));
  }
  return {{"rows", std::move(rows)}, {"inverse", std::move(inverse)}, {"pixels", std::move(pixels)}};
}

Group panelCommands() {
  return {.commands = {{"lcd", "Show what the front panel's LCD shows", make<Lcd>},
                       {"key", "Press keys of the front panel, one after the other", make<Key>},
                       {"panel", "Show the chassis's front panel on this terminal", make<PanelOnTerminal>,
                        Needs::kChassis, true}}};
}

}  // namespace commands
