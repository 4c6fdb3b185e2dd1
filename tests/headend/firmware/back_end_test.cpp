#include <fmt/format.h>
#include <gtest/gtest.h>

#include <map>

#include "card/qamVar.h"
#include "client/card_settings.h"
#include "client/datagram.h"
#include "tests/headend/headend_run.h"

namespace test {
namespace {

// Indices still in the send queues when a store is erased would put erased packets on the air.
TEST(BackEnd, AnUploadUnderPressureLetsNoErasedPacketOut) {
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  auto options = fastOptions(scratch.path, 7 * kSecond);
  options.kernel.costs.busAccess = 220;  // the send tasks are busy most of the time
  client::Intervals always;
  for (const client::TableType type : client::kAllTables) always[type] = 1;
  for (const u32 port : {0U, 1U}) {
    options.intervals[{0, port}] = always;
    options.outputs[{0, port}] = scratch.path / ("out" + std::to_string(port));
    for (int upload = 0; upload < 12; ++upload) {
      options.psi.push_back(
          {.channel = {0, port},
           .file = upload % 2 == 0 ? QAM_SAMPLES "/psi-many.ts" : QAM_SAMPLES "/psi-small.ts",
           .at = upload * (400'000'000 + 137'000 * (Nanos{port} + 1))});
    }
  }
  Headend headend(options);
  EXPECT_EQ(run(headend), headend::kExitDone);
  for (const auto& [kind, count] : headend.violations().counts()) ADD_FAILURE() << kind << ' ' << count;
  for (const u32 port : {0U, 1U}) {
    const Bytes out = readFile(scratch.path / ("out" + std::to_string(port)));
    EXPECT_GT(headend.card(0).output(port).counts().psi, 10'000U);
    ASSERT_EQ(out.size() % 188, 0U);
    std::map<int, u8> continuity;
    std::size_t wrong = 0;
    for (std::size_t at = 0; at < out.size(); at += 188) {
      const int pid = (out[at + 1] & 0x1F) << 8 | out[at + 2];
      const u8 count = out[at + 3] & 0x0F;
      wrong += out[at] == 0x47 ? 0 : 1;
      if (pid == 0x1FFF) continue;
      wrong += continuity.contains(pid) && count != ((continuity[pid] + 1) & 0x0F) ? 1 : 0;
      continuity[pid] = count;
    }
    EXPECT_EQ(wrong, 0U);
  }
}

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
      {"the same again", kSet, 0, 30, number(600000), "0"},
      {"what was set", kGet, 0, 30, {}, "600000"},
      {"a value that only clients refuse", kSet, 0, 31, number(1), "0"},
      {"and the card takes", kGet, 0, 31, {}, "1"},
      {"a reading cannot be set", kSet, 0, 36, number(1), "105"},
      {"nor a setting of channel 2", kSet, 0, 38, number(600000), "105"},
      {"not even the one that the card ignores", kSet, 0, 43, number(15), "105"},
      {"the id that keeps the semaphore", kSet, 0, 51, number(1), "104"},
      {"the same, read", kGet, 0, 51, {}, "104"},
      {"an id without a value", kGet, 0, 46, {}, "104"},
      {"an id without a value, set", kSet, 0, 46, number(1), "104"},
      {"below the ids", kGet, 0, 29, {}, "104"},
      {"above the ids", kSet, 0, 53, number(1), "104"},
      {"three bytes", kSet, 0, 30, {0, 9, 9}, "16"},
      {"five bytes", kSet, 0, 30, {0, 9, 9, 9, 9}, "16"},
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

TEST(BackEnd, AsksNoCardThatDoesNotRun) {
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  fs::resize_file(scratch.path / "flash" / "K717_QAM" / "qam.bin", 1000);
  Headend headend(fastOptions(scratch.path, 60 * kSecond));
  headend.kernel().spawn("tClient", 150, [&] {
    while (!headend.chassis().slot(0).initReturned) headend.kernel().delay(1);
    expectAnswers(headend, {{"read", Operation::kGetVariable, 0, 49, {}, "103"},
                            {"set", Operation::kSetVariable, 0, 30, number(600000), "103"}});
    headend.kernel().stop();
  });
  run(headend);
  EXPECT_LT(headend.kernel().now(), 60 * kSecond);
  EXPECT_EQ(headend.state(0), Headend::CardState::kConfigError);
}

}  // namespace
}  // namespace test
