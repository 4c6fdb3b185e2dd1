// Destination of an output's packets: a file, UDP on loopback, or none. The multiplexer writes in order.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "base/interface.h"
#include "mpeg/packet.h"

namespace headend {

class PacketSink : public base::Interface {
 public:
  virtual void packet(std::span<const u8> packet) = 0;
  virtual void nullPackets(std::uint64_t count) = 0;
  virtual void flush() = 0;

  // Empty if there is no error; else the error and its output. After an error nothing more is written.
  virtual const std::string& error() const = 0;
};

extern const char* const kOutputForms;  // of --out, for messages

// Whether an output goes to the network and not to a file.
inline constexpr std::string_view kUdpScheme = "udp://";
bool isNetworkTarget(std::string_view target);

// `target` is "udp://ADDRESS:PORT" (seven packets per datagram) or a file's path. Throws std::runtime_error
// with the target that cannot be opened.
std::unique_ptr<PacketSink> openSink(const std::string& target);

}  // namespace headend
