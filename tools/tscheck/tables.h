// The tables of a stream as libdvbpsi decodes them, each converted to text, so that two streams can be
// compared.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "scan.h"

extern "C" {
struct dvbpsi_s;
}

namespace tscheck {

class TableDecoder {
 public:
  // Name of a table ("SDT 0x46 ts 12") and its whole content. Called for each current version.
  using OnTable = std::function<void(const std::string& name, const std::string& content)>;
  using OnError = std::function<void(const std::string& text)>;

  // programmes: (PID, programme number) of the programme maps to decode.
  TableDecoder(const std::set<std::pair<uint16_t, uint16_t>>& programmes, OnTable onTable, OnError onError);
  ~TableDecoder();
  TableDecoder(const TableDecoder&) = delete;
  TableDecoder& operator=(const TableDecoder&) = delete;

  void push(Packet packet);  // a copy: libdvbpsi may write to the bytes

 private:
  struct Decoder;
  std::vector<std::unique_ptr<Decoder>> decoders_;
  OnTable onTable_;
  OnError onError_;

  // The handle of a new decoder of the PID.
  dvbpsi_s* add(uint16_t pid, void (*detach)(dvbpsi_s*));
};

}  // namespace tscheck
