// The card's back-end variables as management software reaches them: through the routines that the card
// registered.
#pragma once

#include <algorithm>

#include "tests/module/chassis.h"

namespace test {

// Big-endian numbers, each with its width in bytes.
inline Bytes fields(std::initializer_list<std::pair<u32, int>> numbers) {
  Bytes bytes;
  for (auto [value, width] : numbers) {
    while (width-- > 0) bytes.push_back(static_cast<u8>(value >> 8 * width));
  }
  return bytes;
}
inline Bytes word(u32 value) {
  return fields({{value, 4}});
}

class BackEndTest : public ModuleTest {
 protected:
  struct Reply {
    int result;
    Bytes data;  // as much as the header's length says
  };

  // The card's first variable stands in where there is none.
  const chassis::bc_var& variable(u16 id) const {
    const chassis::bc_var* row = fake.variables;
    while (row->vid != id && row->vid != 0) ++row;
    return row->vid == 0 ? *fake.variables : *row;
  }

  // The request's data stands `reLength` - 4 bytes behind its header.
  Reply read(u16 id, const Bytes& data = {}, u32 port = 0, u16 card = 0, u16 reLength = 4) const {
    struct {
      chassis::bc_vhdr_t header;
      u8 data[40];
    } request{{id, card, port, static_cast<u16>(data.size()), reLength, 0}, {}};
    std::copy(data.begin(), data.end(), request.data + reLength - 4);
    Bytes reply(2048, 0xEE);
    const int result = variable(id).vrd(&request.header, reply.data());
    reply.resize(request.header.vLength);
    return {result, reply};
  }

  // `length` where it is not that of the data.
  int write(u16 id, Bytes data, u32 port = 0, u16 card = 0, std::optional<u16> length = {}) const {
    chassis::bc_vhdr_t header{id, card, port, length.value_or(static_cast<u16>(data.size())), 0, 0};
    data.resize(64 * 1024);
    return variable(id).vwr(&header, data.data());
  }

  QamCardPara& para = *fake.start(0);
};

}  // namespace test
