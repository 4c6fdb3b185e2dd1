// Sends one datagram to a server on loopback and waits for its answer, over and over: what a request costs,
// with as little as possible of the client's own. Prints the seconds that all took, and in hex the last
// answer.
#include <arpa/inet.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

std::vector<unsigned char> bytesOf(const std::string& hex) {
  std::vector<unsigned char> bytes;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
    bytes.push_back(static_cast<unsigned char>(std::stoul(hex.substr(i, 2), nullptr, 16)));
  return bytes;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 4) {
    fmt::print(stderr, "Usage: udp_exchange PORT HEX COUNT\n");
    return 2;
  }
  const std::vector<unsigned char> request = bytesOf(argv[2]);
  const int count = std::atoi(argv[3]);
  const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const timeval patience{.tv_sec = 2, .tv_usec = 0};
  if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0 ||
      ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience) != 0) {
    fmt::print(stderr, "udp_exchange: no socket\n");
    return 1;
  }
  std::array<unsigned char, 2048> answer{};
  ssize_t size = 0;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < count; ++i) {
    if (::send(fd, request.data(), request.size(), 0) < 0 ||
        (size = ::recv(fd, answer.data(), answer.size(), 0)) <= 0) {
      fmt::print(stderr, "udp_exchange: no answer to request {}\n", i + 1);
      return 1;
    }
  }
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
  ::close(fd);
  fmt::print("{:.6f} {:02x}\n", took.count(), fmt::join(answer.begin(), answer.begin() + size, ""));
}
