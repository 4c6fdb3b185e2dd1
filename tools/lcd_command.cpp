// qamctl lcd and qamctl key: the front panel from a script.
#include <fmt/format.h>
#include <png.h>

#include <memory>
#include <stdexcept>
#include <vector>

#include "client/chassis_services.h"
#include "client/udp_link.h"
#include "tools/commands.h"
#include "tools/save_file.h"

namespace tools {
namespace {

constexpr int kScale = 4;  // pixels of the picture per LCD pixel
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

void showLcd(const std::string& server, const std::string& picture, bool json) {
  client::UdpLink link(server);
  const protocol::LcdImage lcd = client::readLcd(link);
  if (!picture.empty()) saveFile(picture, pngOf(lcd));
  if (json) {
    Json rows = Json::array(), characters = Json::array();
    for (int row = 0; row < protocol::kLcdRows; ++row) rows.push_back(lcd.text(row));
    for (const protocol::LcdCharacter& c : lcd.characters) {
      if (c.inverse) characters.push_back({{"row", c.row}, {"x", c.x}});
    }
    printJson({{"rows", std::move(rows)}, {"inverse", std::move(characters)}});
  } else if (picture.empty()) {
    for (int row = 0; row < protocol::kLcdRows; ++row) fmt::print("{}\n", lcd.text(row));
  }
}

void pressKeys(const std::string& server, const std::vector<std::string>& names) {
  std::vector<chassis::PanelKey> keys;
  for (const std::string& name : names) {
    const auto key = protocol::keyOf(name);
    if (!key) {
      throw CLI::ValidationError("KEY",
                                 fmt::format("'{}' is no key: up, down, left, right, ok or cancel", name));
    }
    keys.push_back(*key);
  }
  client::UdpLink link(server);
  for (const chassis::PanelKey key : keys) client::pressKey(link, key);
}

}  // namespace

void addLcdCommands(CLI::App& app, const std::string& server) {
  const auto json = std::make_shared<bool>(false);
  const auto picture = std::make_shared<std::string>();
  CLI::App* lcd = addCommand(app, "lcd", "Show what the front panel's LCD shows",
                             [json, picture, &server] { showLcd(server, *picture, *json); });
  lcd->add_option("--png", *picture, "save it as a picture in FILE instead");
  addJson(lcd, *json);

  const auto keys = std::make_shared<std::vector<std::string>>();
  CLI::App* key = addCommand(app, "key", "Press keys of the front panel, one after the other",
                             [keys, &server] { pressKeys(server, *keys); });
  key->add_option("KEY", *keys, "up, down, left, right, ok or cancel")->required();
  key->footer("The panel takes keys as fast as its menu can; up to 64 wait for it.");
}

}  // namespace tools
