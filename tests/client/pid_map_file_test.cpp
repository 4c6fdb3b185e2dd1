// PID maps as CSV files, and what is looked at before one is loaded.
#include "client/pid_map_file.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "client/pid_map_upload.h"
#include "tests/client/messages.h"

namespace client {
namespace {

using Entries = std::vector<MapEntry>;
using test::expectSays;
using test::messageOf;

const std::string kHeader = "src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n";

Entries fullMap() {
  Entries entries;
  for (u16 n = 0; n < kMapSize; ++n) {
    entries.push_back({static_cast<u16>(4 + n % 2), n % 2u, static_cast<u16>(0x100 + n), n,
                       static_cast<u16>(0x1000 + n), 7, n});
  }
  return entries;
}

TEST(PidMapFile, ReadsWhatItWritesAndWhatPeopleWrite) {
  const Entries entries = fullMap();
  EXPECT_EQ(parseMapFile(mapFileText(entries), "f").entries, entries);
  const MapFile file = parseMapFile(
      "\xEF\xBB\xBF# by hand\r\n\r\n" + kHeader + "6,16,0x1ffe,1,512,2,255\r\n \n# x\n1, 2 ,3,4,5,6,7", "f");
  EXPECT_EQ(file.entries, (Entries{{5, 15, 0x1FFE, 1, 512, 2, 255}, {0, 1, 3, 4, 5, 6, 7}}));
  EXPECT_EQ(file.lines, (std::vector<std::size_t>{4, 7}));
}

TEST(PidMapFile, SaysWhichLineIsWrongAndWhy) {
  const std::string tooMany =
      "\n" + mapFileText(fullMap()).substr(kHeader.size()) + "6,1,0x1e01,0,0x1e01,0,0\n";
  const std::pair<std::string, const char*> rows[] = {
      // below the header
      {"1,1,1,1,1,1\n", " line 2: 6 fields"},
      {"\n1,1,x,1,1,1,1\n", " line 3: src_pid 'x' is no number"},
      {"1,1,0x,1,1,1,1\n", " line 2: src_pid '0x' is no number"},
      {"1,1,1,1,12 3,1,1\n", " line 2: dst_pid '12 3' is no number"},
      {"0,1,1,1,1,1,1\n", " line 2: src_slot 0 is not from 1 to 6"},
      {"7,1,1,1,1,1,1\n", " line 2: src_slot 7 is not from 1 to 6"},
      {"1,0,1,1,1,1,1\n", " line 2: src_port 0 is not"},
      {"1,17,1,1,2,1,1\n", " line 2: src_port 17 is above 16"},
      {"1,1,1,65536,1,1,1\n", " line 2: src_programme 65536 is not"},
      {"1,1,1,1,1,99999999999,1\n", " line 2: dst_programme 99999999999 is not"},
      {"1,1,1,1,1,1,256\n", " line 2: type 256 is not"},
      {"5,1,0x2000,1,1,1,1\n", " line 2: src_pid 0x2000 is above 0x1FFF"},
      {"5,1,1,1,0x1fff,1,1\n", " line 2: dst_pid 0x1FFF is that of null packets"},
      {"5,1,1,1,64,1,1\n#\n5,1,1,1,65,1,1\n", " line 2 and map.csv line 4 have the same source"},
      {"5,1,1,1,64,1,1\n6,1,1,1,64,1,1\n", " line 2 and map.csv line 3 bring two sources onto dst_pid"},
      {"4,1,1,1,64,1,1\n", " line 2: there is no source card in slot 4"},
      {"5,3,1,1,64,1,1\n", " line 2: the source card in slot 5 has no input 3: it has 2"},
      {tooMany, " line 259 is one too many"},
      {"5,2,0x1ffe,1,0x14,1,255\n6,16,1,1,65,1,1\n", ""},
      {"5,1,1,1,64,1,1\n6,1,1,1,17,1,1\n", "map.csv line 3: dst_pid 0x0011 is where the card"},
  };
  MapOptions options;
  std::string notes;
  options.sources = SourceCards{{4, 2}, {5, 16}, {0, 16}};
  options.note = [&](const std::string& text) { notes += text; };
  for (const auto& [text, part] : rows) {
    notes.clear();
    const std::string message = messageOf([&, &lines = text] {
      const MapFile file = parseMapFile(kHeader + lines, "map.csv");
      options.nameOf = [&](std::size_t i) { return fmt::format("map.csv line {}", file.lines.at(i)); };
      checkMap(file.entries, options);
    });
    expectSays(message + notes, part);
  }
  expectSays(messageOf([] { parseMapFile("# only this\n", "map.csv"); }), "map.csv: there is no header");
  expectSays(messageOf([] { parseMapFile("src_slot\n", "map.csv"); }), "map.csv line 1: the header is not");
}

}  // namespace
}  // namespace client
