// Byte-order swaps of scalars and of runs of items.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "qsendian.h"

namespace {

TEST(Endian, CheckMatchesThisMachine) {
  uint16_t probe = 0x0102;
  unsigned char first;
  memcpy(&first, &probe, 1);
  EXPECT_EQ(EndianCheck(), first == 0x02);
}

TEST(Endian, ScalarSwapsReverseAndRestore) {
  short s = 0x1234;
  EndianSwap(s);
  EXPECT_EQ((unsigned short)s, 0x3412);
  EndianSwap(s);
  EXPECT_EQ(s, 0x1234);

  int i = 0x01020304;
  EndianSwap(i);
  EXPECT_EQ(i, 0x04030201);
  EndianSwap(i);
  EXPECT_EQ(i, 0x01020304);

  unsigned int u = 0xA1B2C3D4u;
  EndianSwap(u);
  EXPECT_EQ(u, 0xD4C3B2A1u);

  long long ll = 0x0102030405060708LL;
  EndianSwap(ll);
  EXPECT_EQ(ll, 0x0807060504030201LL);
  EndianSwap(ll);
  EXPECT_EQ(ll, 0x0102030405060708LL);

  float f = 3.5f, fOrig = f;
  EndianSwap(f);
  EXPECT_NE(memcmp(&f, &fOrig, sizeof f), 0);
  EndianSwap(f);
  EXPECT_EQ(f, 3.5f);

  double d = -1234.5625;
  unsigned char before[8], after[8];
  memcpy(before, &d, 8);
  EndianSwap(d);
  memcpy(after, &d, 8);
  for (int k = 0; k < 8; k++) EXPECT_EQ(after[k], before[7 - k]);
  EndianSwap(d);
  EXPECT_EQ(d, -1234.5625);
}

TEST(Endian, ArraySwapsStayWithinTheirItems) {
  // Item count n touches exactly n items; the guard after them stays.
  uint32_t a4[5] = {0x01020304, 0x11121314, 0x21222324, 0xDEADBEEF, 0xDEADBEEF};
  EndianSwapArray4(a4, 3);
  EXPECT_EQ(a4[0], 0x04030201u);
  EXPECT_EQ(a4[1], 0x14131211u);
  EXPECT_EQ(a4[2], 0x24232221u);
  EXPECT_EQ(a4[3], 0xDEADBEEFu);
  EXPECT_EQ(a4[4], 0xDEADBEEFu);
  EndianSwapArray4(a4, 3);
  EXPECT_EQ(a4[0], 0x01020304u);

  uint64_t a8[3] = {0x0102030405060708ULL, 0x1112131415161718ULL, 0xCAFEBABECAFEBABEULL};
  EndianSwapArray8(a8, 2);
  EXPECT_EQ(a8[0], 0x0807060504030201ULL);
  EXPECT_EQ(a8[1], 0x1817161514131211ULL);
  EXPECT_EQ(a8[2], 0xCAFEBABECAFEBABEULL);

  // Zero items: nothing happens (not even a read).
  EndianSwapArray4(nullptr, 0);
  EndianSwapArray8(nullptr, 0);

  // Heap block of exactly n items: the sanitizer build catches any overrun.
  double* heap = new double[4]{1.0, 2.0, 3.0, 4.0};
  EndianSwapArray8(heap, 4);
  EndianSwapArray8(heap, 4);
  EXPECT_EQ(heap[3], 4.0);
  delete[] heap;
}

}  // namespace
