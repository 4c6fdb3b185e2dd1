// UDP sockets of the chassis, from its kernel. The names are the C library's, so a host redirects them: a
// socket here is a chassis socket, and waiting for a datagram blocks one task and not the process. Tasks
// only.
#pragma once

#include "platform/types.h"
#include "platform/wire.h"
#ifndef QAM_VIRTUAL_BUS
#include "qamcard/plain_names.h"
#endif

namespace os {

inline constexpr int AF_INET = 2;
inline constexpr int SOCK_DGRAM = 2;

// An address of the Internet family as the kernel stores it: port and address in network order.
struct sockaddr_in {
  u8 sin_len;
  u8 sin_family;
  wire::U16 sin_port;
  wire::U32 sin_addr;  // 0: any of the chassis's own
  u8 sin_zero[8];
};
static_assert(sizeof(sockaddr_in) == 16);

#ifndef QAM_VIRTUAL_BUS
inline int socket(int domain, int type, int protocol) {
  return firmware::socket(domain, type, protocol);
}
inline int bind(int s, sockaddr_in* name, int length) {
  return firmware::bind(s, name, length);
}
inline int recvfrom(int s, char* buffer, int length, int flags, sockaddr_in* from, int* fromLength) {
  return firmware::recvfrom(s, buffer, length, flags, from, fromLength);
}
inline int sendto(int s, char* buffer, int length, int flags, sockaddr_in* to, int toLength) {
  return firmware::sendto(s, buffer, length, flags, to, toLength);
}
inline int close(int s) {
  return firmware::close(s);
}
#else
// A socket, or ERROR.
int socket(int domain, int type, int protocol);
int bind(int s, sockaddr_in* name, int length);
// Bytes received, cut to `length`, or ERROR. Blocks until a datagram arrives.
int recvfrom(int s, char* buffer, int length, int flags, sockaddr_in* from, int* fromLength);
int sendto(int s, char* buffer, int length, int flags, sockaddr_in* to, int toLength);
int close(int s);
#endif

}  // namespace os
