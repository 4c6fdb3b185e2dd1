// Runs a program against a server of the test's, and holds what it said and its exit code against what a test
// expects.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "headend/kernel/network.h"
#include "protocol/datagram.h"
#include "tests/client/messages.h"

namespace test {

struct Outcome {
  int code;
  std::string text;  // stdout and stderr
};

inline void expect(const Outcome& outcome, int code, const std::string& part) {
  EXPECT_EQ(outcome.code, code) << outcome.text;
  EXPECT_TRUE(has(outcome.text, part)) << "no '" << part << "' in: " << outcome.text;
}

// A call of a program, its exit code and a part of what it says.
struct Call {
  std::string arguments;
  int code;
  std::string part;
};

// A program, and the UDP server that it is given: on a free port of the loopback interface, it answers while
// the program runs.
class Program {
 public:
  // Returns the datagrams to send back for a received one, in order.
  using Answer = std::function<std::vector<base::Bytes>(const base::Bytes&)>;

  Program(std::string name, Answer answer) : name_(std::move(name)), answer_(std::move(answer)) {}
  ~Program() { close(socket_); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  std::string address() const { return headend::hostAddress(socket_); }

  // All parts of the command are for the shell, which runs until the program ends and keeps the pipe open.
  Outcome run(const std::string& arguments, const std::string& before = "") {
    FILE* pipe = popen(
        fmt::format("{}{} --server {} {} 2>&1; exit $?", before, name_, address(), arguments).c_str(), "r");
    std::array<pollfd, 2> pollers = {pollfd{.fd = fileno(pipe), .events = POLLIN, .revents = 0},
                                     pollfd{.fd = socket_, .events = POLLIN, .revents = 0}};
    Outcome outcome{.code = -1, .text = {}};
    std::array<char, 4096> buffer{};
    for (ssize_t n = 1; n > 0;) {
      poll(pollers.data(), pollers.size(), -1);
      if (pollers[1].revents != 0) answerOne();
      if (pollers[0].revents == 0) continue;
      n = read(pollers[0].fd, buffer.data(), buffer.size());
      if (n > 0) outcome.text.append(buffer.data(), static_cast<std::size_t>(n));
    }
    outcome.code = WEXITSTATUS(pclose(pipe));
    return outcome;
  }
  void expectCalls(const std::vector<Call>& calls) {
    for (const Call& call : calls) {
      SCOPED_TRACE(call.arguments);
      expect(run(call.arguments), call.code, call.part);
    }
  }
  // Calls, separated by semicolons, that the program must refuse as wrong.
  void expectWrongCalls(const std::string& calls) {
    std::istringstream all(calls);
    for (std::string call; std::getline(all, call, ';');) EXPECT_EQ(run(call).code, 2) << call;
  }

 private:
  void answerOne() {
    sockaddr_storage from{};
    socklen_t size = sizeof from;
    auto* sender = reinterpret_cast<sockaddr*>(&from);
    base::Bytes datagram(65536);
    const ssize_t length = recvfrom(socket_, datagram.data(), datagram.size(), 0, sender, &size);
    datagram.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
    for (const auto& reply : answer_(datagram)) sendto(socket_, reply.data(), reply.size(), 0, sender, size);
  }

  std::string name_;
  Answer answer_;
  int socket_ = headend::openHostSocket("127.0.0.1", 0);
};

}  // namespace test
