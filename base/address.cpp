#include "base/address.h"

#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <stdexcept>

#include "base/numbers.h"

namespace base {

const char* const kAddressForm =
    "HOST:PORT with a port up to 65535; an IPv6 address is written in brackets, as [::1]:49160";

std::optional<Address> parseAddress(std::string_view text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string_view::npos) return std::nullopt;
  std::string_view host = text.substr(0, colon);
  const auto port = parseDecimal<u16>(text.substr(colon + 1));
  const bool isBracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (isBracketed) host = host.substr(1, host.size() - 2);
  const bool hasColon = host.find(':') != std::string_view::npos;
  if (host.empty() || !port || hasColon != isBracketed) return std::nullopt;
  return Address{.host = std::string(host), .port = *port};
}

std::string addressText(const Address& address) {
  const bool isV6 = address.host.find(':') != std::string::npos;
  return (isV6 ? '[' + address.host + ']' : address.host) + ':' + std::to_string(address.port);
}

static_assert(SocketAddress::kMost >= sizeof(sockaddr_storage));
// In both forms the port is in the same place.
constexpr std::size_t kPortAt = offsetof(sockaddr_in, sin_port);
static_assert(kPortAt == offsetof(sockaddr_in6, sin6_port));

int SocketAddress::family() const {
  return generic()->sa_family;
}

bool SocketAddress::isV6() const {
  return family() == AF_INET6;
}

u16 SocketAddress::port() const {
  return static_cast<u16>(bytes[kPortAt] << 8 | bytes[kPortAt + 1]);
}

void SocketAddress::setPort(u16 port) {
  bytes[kPortAt] = static_cast<u8>(port >> 8);
  bytes[kPortAt + 1] = static_cast<u8>(port);
}

std::string SocketAddress::text() const {
  std::array<char, NI_MAXHOST> host{};
  std::array<char, NI_MAXSERV> number{};
  if (getnameinfo(generic(), size, host.data(), host.size(), number.data(), number.size(),
                  NI_NUMERICHOST | NI_NUMERICSERV) != 0)
    return "?";
  return std::string(isV6() ? "[" : "") + host.data() + (isV6() ? "]:" : ":") + number.data();
}

std::vector<SocketAddress> resolve(const Address& address) {
  addrinfo hints{};
  hints.ai_socktype = SOCK_DGRAM;
  hints.ai_flags = AI_NUMERICSERV;
  addrinfo* found = nullptr;
  if (const int error =
          getaddrinfo(address.host.c_str(), std::to_string(address.port).c_str(), &hints, &found);
      error != 0) {
    const bool isOther = error == EAI_SYSTEM;
    throw std::runtime_error("the host '" + address.host +
                             "' was not found: " + (isOther ? std::strerror(errno) : gai_strerror(error)));
  }
  const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
  std::vector<SocketAddress> all;
  for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
    if (a->ai_family != AF_INET && a->ai_family != AF_INET6) continue;
    SocketAddress& one = all.emplace_back();
    std::memcpy(one.bytes.data(), a->ai_addr, a->ai_addrlen);
    one.size = a->ai_addrlen;
  }
  if (all.empty()) throw std::runtime_error("the host '" + address.host + "' has no IPv4 or IPv6 address");
  std::stable_partition(all.begin(), all.end(), [](const SocketAddress& one) { return !one.isV6(); });
  return all;
}

namespace {

// Of a multicast address; true for others.
bool joinGroup(int fd, const SocketAddress& address) {
  if (address.isV6()) {
    const auto& v6 = reinterpret_cast<const sockaddr_in6&>(address.bytes);
    if (!IN6_IS_ADDR_MULTICAST(&v6.sin6_addr)) return true;
    const ipv6_mreq group = {.ipv6mr_multiaddr = v6.sin6_addr, .ipv6mr_interface = v6.sin6_scope_id};
    return ::setsockopt(fd, IPPROTO_IPV6, IPV6_ADD_MEMBERSHIP, &group, sizeof group) == 0;
  }
  const auto& v4 = reinterpret_cast<const sockaddr_in&>(address.bytes);
  if (!IN_MULTICAST(ntohl(v4.sin_addr.s_addr))) return true;
  const ip_mreq group = {.imr_multiaddr = v4.sin_addr, .imr_interface = {}};
  return ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &group, sizeof group) == 0;
}

}  // namespace

int openDatagramSocket(const std::vector<SocketAddress>& addresses, SocketUse use, int flags) {
  for (const SocketAddress& address : addresses) {
    const int fd = ::socket(address.family(), SOCK_DGRAM | SOCK_CLOEXEC | flags, 0);
    if (fd < 0) continue;
    const auto apply = use == SocketUse::kBind ? ::bind : ::connect;
    const bool joined = use == SocketUse::kConnect || joinGroup(fd, address);
    if (joined && apply(fd, address.generic(), address.size) == 0) return fd;
    const int error = errno;
    ::close(fd);
    errno = error;
  }
  return -1;
}

}  // namespace base
