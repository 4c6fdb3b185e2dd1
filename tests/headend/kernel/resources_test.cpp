#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <cstdint>

#include "headend/kernel/flash.h"
#include "headend/kernel/heap.h"
#include "tests/headend/scratch.h"

namespace test {
namespace {

TEST(Resources, HeapFillsBlocksKeepsItsLimitAndTakesBack) {
  headend::Heap heap(100, 0xA5);
  auto* block = static_cast<u8*>(heap.allocate(60));
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0U);
  EXPECT_EQ(Bytes(block, block + 60), Bytes(60, 0xA5));
  EXPECT_EQ(heap.allocate(41), nullptr);
  EXPECT_EQ(heap.failures(), 1U);
  void* rest = heap.allocate(40);
  EXPECT_EQ(heap.used(), 100U);
  heap.release(nullptr), heap.release(block);
  EXPECT_EQ(heap.used(), 40U);
  heap.release(rest);
}

TEST(Resources, FlashReplacesAFileWholeOrLeavesTheOldOne) {
  const Scratch scratch;
  headend::Flash flash(scratch.path);
  const char* name = "/tffs0/para/card1.dat";
  const fs::path file = scratch.path / "para" / "card1.dat";
  const Bytes old(1000, 1);
  const Bytes fresh(200'000, 2);
  EXPECT_EQ(flash.replace(name, old), "");  // makes the folder
  EXPECT_EQ(flash.open("/tffs0/para", "rb"), nullptr);

  // A disk that fills up in the middle of the write.
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit before{};
  getrlimit(RLIMIT_FSIZE, &before);
  const rlimit full{.rlim_cur = 100'000, .rlim_max = before.rlim_max};
  setrlimit(RLIMIT_FSIZE, &full);
  const std::string error = flash.replace(name, fresh);
  setrlimit(RLIMIT_FSIZE, &before);
  EXPECT_NE(error.find("card1.dat: writing failed: File too large"), std::string::npos) << error;
  EXPECT_EQ(readFile(file), old);
  EXPECT_EQ(filesIn(scratch.path), 2U);

  EXPECT_EQ(flash.replace(name, fresh), "");
  EXPECT_EQ(readFile(file), fresh);
}

}  // namespace
}  // namespace test
