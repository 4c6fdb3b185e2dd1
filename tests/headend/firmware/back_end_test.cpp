#include <gtest/gtest.h>

#include <map>

#include "client/psi_records.h"
#include "tests/headend/headend_run.h"

namespace {

using namespace test;
using client::Operation;
using client::Request;

headend::Options managedOptions(const fs::path& folder, Nanos duration) {
  auto options = fastOptions(folder, duration);
  options.manage = {"127.0.0.1", 0};
  return options;
}

Request write(u16 variable, Bytes data, u16 slot = 0, u32 port = 0) {
  const u16 length = static_cast<u16>(data.size());
  return {.operation = Operation::kWrite,
          .sequence = 0,
          .variable = variable,
          .slot = slot,
          .port = port,
          .length = length,
          .data = std::move(data)};
}
Request read(u16 variable, Bytes data = {}, u16 slot = 0, u32 port = 0) {
  Request request = write(variable, std::move(data), slot, port);
  request.operation = Operation::kRead;
  return request;
}
// One PAT packet for the store.
Bytes chunk() {
  Bytes data(16 + 188, 0x11);
  std::fill(data.begin(), data.begin() + 16, u8{0});
  data[12] = 1;
  data[16] = 0x47;
  data[17] = 0x40;
  data[18] = 0;
  return data;
}

struct Managed {
  Scratch scratch;
  std::unique_ptr<Headend> headend;
  explicit Managed(Nanos duration) {
    headend::initFlash(scratch.path / "flash");
    headend = std::make_unique<Headend>(managedOptions(scratch.path, duration));
  }
  // Runs `script` in a task below the back end, once the card runs or at once.
  void script(bool whenTheCardRuns, std::function<void(Client&)> steps) {
    headend->kernel().spawn("tClient", 240, [this, whenTheCardRuns, steps = std::move(steps)] {
      while (whenTheCardRuns && !headend->chassis().slot(0).initReturned) headend->kernel().delay(1);
      Client client(*headend);
      steps(client);
      scriptDone = true;
      headend->kernel().stop();
      headend->kernel().delay(1);
    });
    run(*headend);
    EXPECT_TRUE(scriptDone);
  }
  bool scriptDone = false;
};

TEST(BackEnd, ARequestRepeatedUnderItsNumberGetsTheStoredReplyAndIsNotCarriedOutAgain) {
  Managed managed(20 * kSecond);
  const auto stored = [] { return GetQamCardParaFromList(0)->pktNum[0][0]; };
  managed.script(true, [&](Client& client) {
    EXPECT_EQ(client.call(write(client::kVarPsiLock, {0, 0, 0, 1})).result, client::kDone);
    Request request = write(client::kVarPsiPackets, chunk());
    request.sequence = 77;
    const Bytes first = client.callRaw(request);
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(stored(), 1);
    EXPECT_EQ(client.callRaw(request), first);
    EXPECT_EQ(stored(), 1);
    Client other(*managed.headend);  // the same number from somebody else is another request
    EXPECT_FALSE(other.callRaw(request).empty());
    EXPECT_EQ(stored(), 2);
    EXPECT_EQ(client.callRaw(request), first);  // and does not make this one forgotten
    EXPECT_EQ(stored(), 2);
    request.sequence = 78;
    EXPECT_FALSE(client.callRaw(request).empty());
    EXPECT_EQ(stored(), 3);
    request.sequence = 77;  // only the last one is a repetition
    EXPECT_FALSE(client.callRaw(request).empty());
    EXPECT_EQ(stored(), 4);
  });
}

TEST(BackEnd, AnswersEachRequestWithTheResultThatItDeserves) {
  Managed managed(60 * kSecond);
  struct Row {
    const char* name;
    Request request;
    u32 result;
    std::size_t size;
  };
  Request lies = read(client::kVarPsiLock);
  lies.length = 4;
  Request liesToo = write(client::kVarPsiLock, {0, 0, 0, 1});
  liesToo.length = 5;
  Request unknown = read(client::kVarPsiLock);
  unknown.operation = static_cast<Operation>(9);
  const Row rows[] = {
      {"lock state", read(client::kVarPsiLock), 0, 4},
      {"interval", read(client::kVarPsiInterval, {1, 0, 0, 0}), 0, 12},
      {"no packets", read(client::kVarPsiPackets, {0, 0, 0, 0, 0, 0, 0, 0}), 0, 16},
      {"slot 6", read(client::kVarPsiLock, {}, 6), client::kBadSlotOrPort, 0},
      {"slot 255", write(client::kVarPsiLock, {0, 0, 0, 0}, 255), client::kBadSlotOrPort, 0},
      {"port 2", read(client::kVarPsiLock, {}, 0, 2), client::kBadSlotOrPort, 0},
      {"empty slot", read(client::kVarPsiLock, {}, 3), client::kNoCard, 0},
      {"empty slot, written", write(client::kVarPsiLock, {0, 0, 0, 0}, 5, 1), client::kNoCard, 0},
      {"unknown variable", read(0x2103), client::kUnknownVariable, 0},
      {"unknown table", read(client::kVarPsiInterval, {0x70, 0, 0, 0}), client::kUnknownTableRead, 0},
      {"too long a lock", read(client::kVarPsiLock, {0, 0, 0, 0}), client::kBadLength, 0},
      {"announces more than it has", lies, client::kBadLength, 0},
      {"announces one more", liesToo, client::kBadLength, 0},
      {"packets of another number", write(client::kVarPsiPackets, Bytes(16 + 188, 0)), client::kBadLength, 0},
      {"no operation", unknown, client::kUnknownOperation, 0},
  };
  managed.script(true, [&](Client& client) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.name);
      const client::Reply reply = client.call(row.request);
      EXPECT_EQ(reply.result, row.result);
      EXPECT_EQ(reply.data.size(), row.size);
      EXPECT_EQ(reply.variable, row.request.variable);
      EXPECT_EQ(reply.slot, row.request.slot);
      EXPECT_EQ(reply.port, row.request.port);
    }
    Request status = read(0);
    status.operation = Operation::kStatus;
    managed.headend->backEnd().onStatus([] { return std::string("well"); });
    EXPECT_EQ(client.call(status).data, Bytes({'w', 'e', 'l', 'l'}));
  });
  EXPECT_FALSE(managed.headend->backEnd().lockedSince(0, 0));
}

// Datagrams that are no requests get no answer and leave the back end in service. A chunk that announces more
// packets than a record holds is read no further than the buffer goes.
TEST(BackEnd, OutlivesWhateverComes) {
  Managed managed(60 * kSecond);
  managed.script(true, [&](Client& client) {
    const Loopback vandal;
    const std::string address = managed.headend->managementAddress();
    Bytes good = client::encode(read(client::kVarPsiLock));
    for (std::size_t length = 0; length < good.size(); ++length) {
      vandal.send(address, Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(length)));
      vandal.send(address, Bytes(length * 977, static_cast<u8>(length)));
      managed.headend->kernel().delay(2);
    }
    EXPECT_FALSE(vandal.receive());
    EXPECT_EQ(client.call(write(client::kVarPsiLock, {0, 0, 0, 1})).result, client::kDone);
    Bytes most(16 + 255 * 188, 0);
    most[12] = 255;
    EXPECT_EQ(client.call(write(client::kVarPsiPackets, most)).result, client::kDone);
    most[2] = 0x70;
    EXPECT_EQ(client.call(write(client::kVarPsiPackets, most)).result, client::kUnknownTable);
    EXPECT_TRUE(managed.headend->backEnd().lockedSince(0, 0));
    EXPECT_EQ(client.call(write(client::kVarPsiLock, {0, 0, 0, 0})).result, client::kDone);
    EXPECT_FALSE(managed.headend->backEnd().lockedSince(0, 0));
  });
}

TEST(BackEnd, SaysThatACardHasNotStarted) {
  Managed managed(kSecond);
  managed.script(false, [&](Client& client) {
    EXPECT_EQ(client.call(write(client::kVarPsiLock, {0, 0, 0, 1}), 99).result, client::kNotStarted);
    EXPECT_FALSE(managed.headend->chassis().slot(0).initReturned);
  });
  EXPECT_FALSE(managed.headend->backEnd().lockedSince(0, 0));
}

TEST(BackEnd, SaysThatNoCardHasRegistered) {
  const Scratch scratch;
  fs::create_directories(scratch.path / "flash");
  auto options = managedOptions(scratch.path, kSecond);
  options.slots = {};
  Headend headend(options);
  u32 result = 0;
  headend.kernel().spawn("tClient", 240, [&] {
    Client client(headend);
    result = client.call(read(client::kVarPsiLock), 50).result;
    headend.kernel().delay(1'000'000);
  });
  run(headend);
  EXPECT_EQ(result, client::kNoBackEnd);
}

// Every table at every tick is more than this bus carries: the back end, which comes after the send tasks, is
// starved, and who took its time is told.
TEST(BackEnd, ReportsARequestThatWaitsForASecondAndWhoHadTheProcessor) {
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  auto options = managedOptions(scratch.path, 6 * kSecond);
  options.kernel.costs.busAccess = 600;
  for (const u32 port : {0U, 1U}) {
    options.psi.push_back({.channel = {0, port}, .file = QAM_SAMPLES "/psi-many.ts", .at = 0});
    for (const client::TableType type : client::kAllTables) options.intervals[{0, port}][type] = 1;
  }
  Headend headend(options);
  const Loopback client;
  Nanos sent = 0;
  headend.onTick([&] {
    if (sent != 0 || headend.kernel().now() < 4 * kSecond) return;
    sent = headend.kernel().now();
    client.send(headend.managementAddress(), client::encode(read(client::kVarPsiLock)));
  });
  run(headend);
  const auto& late = headend.backEnd().lateRequests();
  ASSERT_EQ(late.size(), 1U);
  EXPECT_LE(late[0].arrived - sent, 20'000'000);
  ASSERT_FALSE(late[0].load.empty());
  EXPECT_EQ(late[0].load.front().first.find("qam0PSISend"), 0U);
  Nanos sum = 0;
  for (const auto& [name, took] : late[0].load) sum += took;
  EXPECT_NEAR(static_cast<double>(sum), 1e9, 1e8);
  EXPECT_NE(readText(scratch.path / "log").find("waited for a second"), std::string::npos);
}

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
           .at = upload * (400'000'000 + 137'000 * (port + 1))});
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

}  // namespace
