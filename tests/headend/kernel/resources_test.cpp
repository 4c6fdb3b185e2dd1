#include <gtest/gtest.h>

#include "headend/kernel/flash.h"
#include "headend/kernel/heap.h"
#include "tests/headend/scratch.h"

namespace test {
namespace {

TEST(Resources, HeapFillsBlocksKeepsItsLimitAndTakesBack) {
  headend::Heap heap(100, 0xA5);
  auto* block = static_cast<u8*>(heap.allocate(60));
  EXPECT_EQ(Bytes(block, block + 60), Bytes(60, 0xA5));
  EXPECT_EQ(heap.allocate(41), nullptr);
  EXPECT_EQ(heap.failures(), 1U);
  void* rest = heap.allocate(40);
  EXPECT_EQ(heap.used(), 100U);
  heap.release(nullptr), heap.release(block);
  EXPECT_EQ(heap.used(), 40U);
  heap.release(rest);
}

TEST(Resources, AFolderOfTheFlashIsMadeForAFileAndIsNone) {
  const Scratch scratch;
  headend::Flash flash(scratch.path);
  EXPECT_EQ(flash.replace("/tffs0/para/card1.dat", Bytes(1)), "");
  EXPECT_EQ(flash.open("/tffs0/para", "rb"), nullptr);
}

}  // namespace
}  // namespace test
