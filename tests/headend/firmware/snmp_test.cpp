// What the SNMP agent starts from: the secrets that an operator names, and who the engine is over its
// power-ups.
#include <gtest/gtest.h>

#include "headend/firmware/snmp/engine_identity.h"
#include "headend/firmware/snmp/secrets.h"
#include "tests/client/messages.h"
#include "tests/headend/scratch.h"

namespace test {
namespace {

using headend::EngineIdentity;
using headend::SnmpSecrets;

TEST(SnmpSecrets, LinesNameCommunitiesAndUsers) {
  const SnmpSecrets secrets = headend::parseSnmpSecrets(
      "# who\n\n  read-community look\nwrite-community \"ch an\\\"ge\"\n"
      "user mon read SHA \"a pass 8\"\ntrap-user adm\n"
      "user adm write SHA-512 authpass AES-256 privpass\n",
      "file");
  EXPECT_EQ(secrets.readCommunity, "look");
  EXPECT_EQ(secrets.writeCommunity, "ch an\"ge");
  EXPECT_EQ(secrets.trapUser, "adm");
  ASSERT_EQ(secrets.users.size(), 2U);
  const SnmpSecrets::User& mon = secrets.users[0];
  EXPECT_EQ(mon.name + '|' + mon.authProtocol + '|' + mon.authPassphrase, "mon|SHA|a pass 8");
  EXPECT_FALSE(mon.writes || mon.hasPrivacy());
  const SnmpSecrets::User& adm = *secrets.find("adm");
  EXPECT_EQ(adm.privProtocol + '|' + adm.privPassphrase, "AES-256|privpass");
  EXPECT_TRUE(adm.writes);
  EXPECT_EQ(secrets.find("ad"), nullptr);
}

TEST(SnmpSecrets, WhatIsWrongIsSaidWithItsLineAndNoSecret) {
  const std::pair<const char*, const char*> rows[] = {
      {"read-comunity SECRET", "line 1: want read-community"},
      {"\nread-community", "line 2: read-community wants one word"},
      {"read-community SECRETSECRETSECRETSECRETSECRETSECRETSECRETSECRETSECRETSECRETSECRET",
       "at most 64 characters"},
      {"read-community SECRET\nread-community SECRET2", "line 2: read-community is there twice"},
      {"read-community SECRET\xC3\xBC", "wants one word"},
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

class SnmpEngine : public ::testing::Test {
 protected:
  EngineIdentity boot() {
    return headend::bootEngine(flash_, [this](const std::string& text) { said_ += text; });
  }
  void put(const std::string& text) const {
    writeFile(scratch_.path / "snmp" / "engine.txt", {reinterpret_cast<const u8*>(text.data()), text.size()});
  }

  Scratch scratch_;
  headend::Flash flash_{scratch_.path};
  std::string said_;
};

TEST_F(SnmpEngine, CountsItsBootsAndIsANewOneWhereItsFileIsDamagedOrTheyAreUsedUp) {
  const std::string id = "0x80001f88050102030405060708";
  put("engine " + id + " boots 2147483644\n");
  for (const u32 boots : {2147483645U, 2147483646U}) {
    const EngineIdentity engine = boot();
    EXPECT_TRUE(engine.boots == boots && headend::engineIdText(engine) == id);
  }
  EXPECT_EQ(said_, "");
  EXPECT_EQ(boot().boots, 1U);
  EXPECT_TRUE(has(said_, "used up"));
  const std::vector<std::string> damaged = {"",
                                            "engine " + id + " boots 7",
                                            "engine 0x80001f88 boots 7\n",
                                            "engine " + id + " boots 7\nmore",
                                            "engine " + id + " boots 4294967298\n",
                                            std::string(5000, 'x')};
  for (const std::string& text : damaged) {
    said_.clear();
    put(text);
    const EngineIdentity engine = boot();
    EXPECT_TRUE(engine.boots == 1 && headend::engineIdText(engine) != id) << text;
    EXPECT_TRUE(headend::engineIdText(engine).starts_with("0x80001f8805") && has(said_, "damaged"));
    EXPECT_TRUE(boot().id == engine.id && boot().boots == 3);
  }
}

}  // namespace
}  // namespace test
