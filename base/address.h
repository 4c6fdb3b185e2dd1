// Addresses of the network: their text, and the names and numbers in it.
#pragma once

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/types.h"

struct sockaddr;  // the host's socket headers would hide names of the chassis

namespace base {

// What an operator may write where an address is wanted, for messages.
extern const char* const kAddressForm;

// "HOST:PORT": a name, an IPv4 address, or an IPv6 address in brackets.
struct Address {
  std::string host;
  u16 port = 0;
};
// Nullopt for other texts, including an IPv6 address without brackets.
std::optional<Address> parseAddress(std::string_view text);
std::string addressText(const Address& address);

// An IPv4 or IPv6 address with its port, as the host's sockets take it.
struct SocketAddress {
  static constexpr std::size_t kMost = 128;
  alignas(8) std::array<u8, kMost> bytes{};
  unsigned size = kMost;

  int family() const;
  bool isV6() const;
  u16 port() const;
  void setPort(u16 port);
  sockaddr* generic() { return reinterpret_cast<sockaddr*>(bytes.data()); }
  const sockaddr* generic() const { return reinterpret_cast<const sockaddr*>(bytes.data()); }
  std::string text() const;  // "127.0.0.1:49160", "[::1]:49160"
};

// All addresses of a host, IPv4 first. Waits for the name service if the host is a name. Throws
// std::runtime_error with the reason.
std::vector<SocketAddress> resolve(const Address& address);

// A datagram socket of the host, bound or connected to the first of these addresses that it can use. `flags`
// are added to its type, as SOCK_NONBLOCK. A socket that is bound to a multicast address joins its group, on
// the interface that the host's routes name. -1 with errno of the last address if it can use none.
enum class SocketUse { kBind, kConnect };
int openDatagramSocket(const std::vector<SocketAddress>& addresses, SocketUse use, int flags = 0);

}  // namespace base
