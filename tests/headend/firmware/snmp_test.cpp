// What the SNMP agent starts from: the secrets that an operator names, and who the engine is over its
// power-ups. And the bounds of a row.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>

#include "headend/firmware/snmp/library.h"
#include "headend/firmware/snmp/notification.h"
#include "headend/firmware/snmp/secrets.h"
#include "tests/client/messages.h"
#include "tests/headend/headend_run.h"
#include "tests/headend/scratch.h"

namespace test {
namespace {

using headend::EngineIdentity;

// Lines that are right are tried in tests/e2e/snmp.py.
TEST(SnmpSecrets, WhatIsWrongIsSaidWithItsLineAndNoSecret) {
  const std::pair<const char*, const char*> rows[] = {
      {"# who\n read-community \"SEC \\\"RET\"\nread-comunity SECRET", "line 3: want read-community"},
      {"\nread-community", "line 2: read-community needs one word"},
      {"read-community SECRETSECRETSECRETSECRETSECRETSECRETSECRETSECRETSECRETSECRETSECRET",
       "at most 64 characters"},
      {"read-community SECRET\nread-community SECRET2", "line 2: read-community is there twice"},
      {"read-community SECRET\xC3\xBC", "needs one word"},
      {"user mon read SHA SECRETSECRET AES", "want user NAME"},
      {"user mon look SHA SECRETSECRET", "read or write"},
      {"user mon read SHA SECRETSECRET DES SECRETSECRET", "AES, AES-192"},
      {"user mon read SHA SECRETSECRET AES SECRET", "eight characters"},
      {"user mon write SHA SECRETSECRET", "needs a privacy protocol"},
      {"user mon read SHA SECRETSECRET\nuser mon read SHA SECRETSECRET", "line 2: a user of that name"},
      {"user abcdefghijabcdefghijabcdefghijabc read SHA SECRETSECRET", "1 to 32 characters"},
      {"trap-community SECRET\nuser mon read SHA SECRETSECRET\ntrap-user mon", "both trap-community"},
      {"read-community SECRET\nwrite-community SECRET", "must differ"},
  };
  for (const auto& [text, says] : rows) {
    SCOPED_TRACE(text);
    const std::string message = messageOf([&text = text] { headend::parseSnmpSecrets(text, "file"); });
    EXPECT_TRUE(has(message, "file") && has(message, says)) << message;
    EXPECT_FALSE(has(message, "SECRET")) << message;
  }
}

TEST(SnmpEngine, CountsItsBootsAndIsANewOneWhereItsFileIsDamagedOrTheyAreUsedUp) {
  const Scratch scratch;
  headend::Flash flash{scratch.path};
  std::string said;
  const auto boot = [&] {
    return headend::bootEngine(flash, [&](const std::string& text) { said += text; });
  };
  const auto put = [&](const std::string& text) {
    writeFile(scratch.path / "snmp" / "engine.txt", {reinterpret_cast<const u8*>(text.data()), text.size()});
  };
  const std::string id = "0x80001f88050102030405060708";
  put("engine " + id + " boots 2147483644\n");
  for (const u32 boots : {2147483645U, 2147483646U}) {
    const EngineIdentity engine = boot();
    EXPECT_TRUE(engine.boots == boots && headend::engineIdText(engine) == id);
  }
  EXPECT_EQ(said, "");
  EXPECT_EQ(boot().boots, 1U);
  EXPECT_TRUE(has(said, "used up"));
  const std::string line = "engine " + id + " boots ";
  for (const std::string& text : {std::string(), line + "7", std::string("engine 0x80001f88 boots 7\n"),
                                  line + "7\nmore", line + "4294967298\n", std::string(5000, 'x')}) {
    said.clear();
    put(text);
    const EngineIdentity engine = boot();
    EXPECT_TRUE(engine.boots == 1 && headend::engineIdText(engine) != id) << text;
    EXPECT_TRUE(headend::engineIdText(engine).starts_with("0x80001f8805") && has(said, "damaged"));
    EXPECT_TRUE(boot().id == engine.id && boot().boots == 3);
  }
}

TEST(SnmpTime, WrapsAfter497Days) {
  constexpr headend::Nanos kWrap = (headend::Nanos{1} << 32) * (headend::kSecond / 100);
  EXPECT_EQ(headend::timeTicks(kWrap - 1), 0xFFFFFFFF);
  EXPECT_EQ(headend::timeTicks(kWrap), 0);
}

// The row 4.1.1.1 of slot 1, a variable of a modulator card, whose handler takes any number.
i32 rowValue;
int setRow(int /*action*/, u8* /*value*/, u8 /*type*/, int /*length*/, u8* /*stat*/, u32* /*name*/,
           int /*names*/) {
  return chassis::SNMP_ERR_NOERROR;
}
u8* findRow(chassis::variable* row, u32* name, int* length, int /*exact*/, int* size,
            chassis::WriteMethod* write) {
  *std::copy_n(row->name, row->namelen, name) = 0;
  *length = row->namelen + 1;
  *size = sizeof rowValue;
  *write = setRow;
  return reinterpret_cast<u8*>(&rowValue);
}

TEST(SnmpRows, HaveTheBoundsOfTheirTypeOfCard) {
  constexpr std::string_view kSet(  // to 5
      "\x30\x31\2\1\1\4\6"
      "change"
      "\xA3\x24\2\1\1\2\1\0\2\1\0\x30\x19\x30\x17"
      "\6\x12\x2B\6\1\4\1\xBF\x08\xCE\x0F\xCE\x0F\x1B\2\4\1\1\1\0\2\1\5",
      51);
  constexpr std::size_t kErrorStatus = 20;
  const chassis::variable4 row{kVarFrequency, chassis::ASN_INTEGER, chassis::RWRITE, findRow, 4,
                               {4, 1, 1, 1}};
  ::setenv("HEADEND_SNMP_SECRETS", "write-community change", 1);
  Driven driven([](headend::Options& options) {
    options.snmp.listen = {"127.0.0.1", 0};
    options.snmp.writeCommunity = true;
    options.statusPeriod = 0;
  });
  driven.drive([&] {
    headend::Headend& headend = driven.headend();
    std::vector<u32> name = headend.options.snmp.base;
    name.push_back(kMibFirstSlot);
    headend.snmp->registerRows(name.data(), static_cast<int>(name.size()), &row, 1, sizeof row);
    const int socket = headend::openHostSocket("127.0.0.1", 0);
    sockaddr_in agent{};
    agent.sin_family = AF_INET;
    agent.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    agent.sin_port = htons(base::parseAddress(headend.snmp->address())->port);
    ASSERT_EQ(::connect(socket, reinterpret_cast<sockaddr*>(&agent), sizeof agent), 0);
    for (const auto& [type, error] : {std::pair<u8, u8>{QAM_CARD_TYPE, chassis::SNMP_ERR_WRONGVALUE},
                                      std::pair<u8, u8>{1, chassis::SNMP_ERR_NOERROR}}) {
      headend.chassis.slot(0).descriptor->cardType = type;
      std::array<u8, 100> reply{};
      ::send(socket, kSet.data(), kSet.size(), 0);
      for (int tick = 0; tick < 1000 && ::recv(socket, reply.data(), reply.size(), 0) < 0; ++tick)
        headend.kernel.delay(1);
      EXPECT_EQ(reply[kErrorStatus], error) << "type " << int{type};
    }
    headend.chassis.slot(0).descriptor->cardType = QAM_CARD_TYPE;
    ::close(socket);
  });
}

}  // namespace
}  // namespace test
