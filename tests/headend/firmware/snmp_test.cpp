// What the SNMP agent starts from: the secrets that an operator names, and who the engine is over its
// power-ups.
#include <gtest/gtest.h>

#include "headend/firmware/snmp/library.h"
#include "headend/firmware/snmp/secrets.h"
#include "tests/client/messages.h"
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

}  // namespace
}  // namespace test
