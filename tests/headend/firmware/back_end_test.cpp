#include <fmt/format.h>
#include <gtest/gtest.h>

#include "card/qamVar.h"
#include "client/card_settings.h"
#include "client/datagram.h"
#include "tests/headend/headend_run.h"

namespace test {
namespace {

using client::Operation;

struct Question {
  const char* what;
  Operation operation;
  u16 slot;
  u16 id;
  Bytes data;
  const char* answer;  // of a value that is read itself, else the result in hex
};

Bytes number(u32 value) {
  return client::encodeNumber(value);
}

// What the back end answers to a task that asks as a client does.
std::string ask(Headend& headend, const Question& question) {
  headend::UdpSocket socket(headend.network(), 50000);
  socket.send({.address = 0, .port = client::kDefaultManagementPort},
              client::encode(client::Request{.operation = question.operation,
                                             .sequence = static_cast<u32>(headend.kernel().now()),
                                             .variable = question.id,
                                             .slot = question.slot,
                                             .port = 0,
                                             .length = static_cast<u16>(question.data.size()),
                                             .data = question.data}));
  const auto datagram = socket.receive(10 * headend.kernel().settings().tickHz);
  if (!datagram) return "no reply";
  const client::Reply reply = client::decodeReply(datagram->bytes).value();
  const auto value = client::decodeValue(reply.data);
  if (!value) return fmt::format("{:x}", reply.result);
  const auto* text = std::get_if<std::string>(&*value);
  return text != nullptr ? *text : fmt::format("{}", std::get<u32>(*value));
}

void expectAnswers(Headend& headend, const std::vector<Question>& questions) {
  for (const Question& q : questions) {
    EXPECT_EQ(ask(headend, q), q.answer) << q.what;
    headend.kernel().delay(1);  // another time, and so another sequence number
  }
}

TEST(BackEnd, AsksACardForItsVariablesAndRefusesWhatItMustNotBeAsked) {
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  Headend headend(fastOptions(scratch.path, 20 * kSecond));
  constexpr auto kGet = Operation::kGetVariable;
  constexpr auto kSet = Operation::kSetVariable;
  const std::vector<Question> early = {
      {"read before the start-up has returned", kGet, 0, 30, {}, "100"},
      {"set before the start-up has returned", kSet, 0, 30, number(600000), "100"},
      {"a channel's lock read before", Operation::kRead, 0, 0x3101, {}, "100"},
  };
  const std::vector<Question> questions = {
      {"a number", kGet, 0, 30, {}, "554000"},
      {"a number of channel 2", kGet, 0, 38, {}, "562000"},
      {"a text", kGet, 0, 49, {}, "V2.1.05A"},
      {"a sensor's eight bits", kGet, 0, 47, {}, "25"},
      {"a setting", kSet, 0, 30, number(600000), "0"},
      {"what was set", kGet, 0, 30, {}, "600000"},
      {"a value that only clients refuse", kSet, 0, 31, number(1), "0"},
      {"and the card takes", kGet, 0, 31, {}, "1"},
      {"a reading cannot be set", kSet, 0, 36, number(1), "105"},
      {"nor a setting of channel 2", kSet, 0, 43, number(15), "105"},
      {"the id that keeps the semaphore", kSet, 0, 51, number(1), "104"},
      {"an id without a value", kGet, 0, 46, {}, "104"},
      {"below the ids", kGet, 0, 29, {}, "104"},
      {"above the ids", kSet, 0, 53, number(1), "104"},
      {"three bytes", kSet, 0, 30, {0, 9, 9}, "16"},
      {"a read with data", kGet, 0, 30, number(0), "16"},
      {"an empty slot", kSet, 1, 30, number(600000), "15"},
      {"no slot", kGet, 6, 30, {}, "12"},
  };
  headend.kernel().spawn("tMenu", 100, [&] {  // comes first whenever the semaphore is free
    while (!headend.chassis().slot(0).initReturned) headend.kernel().delay(1);
    for (;;) {
      QamGetVar(0, 0, kVarHardwareVersion, nullptr);
      headend.kernel().delay(1);
    }
  });
  headend.kernel().spawn("tClient", 150, [&] {
    expectAnswers(headend, early);
    while (!headend.chassis().slot(0).initReturned) headend.kernel().delay(1);
    expectAnswers(headend, questions);
    const std::string rate = ask(headend, {"a text while the buffer is fought for", kGet, 0, 36, {}, ""});
    EXPECT_TRUE(rate.ends_with("Kb/s")) << rate;
    EXPECT_EQ(os::semTake(semQamVar, 100), os::OK) << "somebody keeps the semaphore";
    headend.kernel().stop();
  });
  run(headend);
  EXPECT_LT(headend.kernel().now(), 15 * kSecond);
  EXPECT_EQ(headend.chassis().slot(0).saves, 3U);  // defaults and two settings
  EXPECT_TRUE(headend.assertionFailures().empty());
}

}  // namespace
}  // namespace test
