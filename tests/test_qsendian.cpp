// Byte-order swaps of scalars and of runs of items.
#include <gtest/gtest.h>

#include <cstdint>

#include "qsendian.h"

TEST(Endian, ScalarAndArraySwaps) {
  const uint16_t probe = 0x0102;
  EXPECT_EQ(EndianCheck(), *reinterpret_cast<const unsigned char*>(&probe) == 0x02);
  int i = 0x01020304;
  long long ll = 0x0102030405060708LL;
  double d = -1234.5625, dSwapped = d;
  EndianSwap(i);
  EndianSwap(ll);
  EndianSwap(dSwapped);
  EXPECT_EQ(i, 0x04030201);
  EXPECT_EQ(ll, 0x0807060504030201LL);
  EndianSwap(dSwapped);
  EXPECT_EQ(dSwapped, d);

  // The item after each run is a guard that must stay as it is.
  uint32_t a4[4] = {0x01020304, 0x11121314, 0x21222324, 0xDEADBEEF};
  EndianSwapArray4(a4, 3);
  EXPECT_EQ(a4[2], 0x24232221u);
  EXPECT_EQ(a4[3], 0xDEADBEEFu);
  uint64_t a8[3] = {0x0102030405060708ULL, 0x1112131415161718ULL, 0xCAFEBABECAFEBABEULL};
  EndianSwapArray8(a8, 2);
  EXPECT_EQ(a8[1], 0x1817161514131211ULL);
  EXPECT_EQ(a8[2], 0xCAFEBABECAFEBABEULL);
  EndianSwapArray4(nullptr, 0);
}
