// Byte-order swaps of scalars and of runs of items.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "qsendian.h"

namespace {

// The swap must mirror the bytes, and a second swap must restore the value.
template <typename T>
void ExpectMirroredAndRestored(T value) {
  T v = value;
  unsigned char before[sizeof(T)], after[sizeof(T)];
  memcpy(before, &v, sizeof(T));
  EndianSwap(v);
  memcpy(after, &v, sizeof(T));
  for (size_t k = 0; k < sizeof(T); k++) EXPECT_EQ(after[k], before[sizeof(T) - 1 - k]) << "byte " << k;
  EndianSwap(v);
  EXPECT_EQ(memcmp(&v, &value, sizeof(T)), 0);
}

TEST(Endian, ScalarSwaps) {
  uint16_t probe = 0x0102;
  unsigned char first;
  memcpy(&first, &probe, 1);
  EXPECT_EQ(EndianCheck(), first == 0x02);

  int i = 0x01020304;
  EndianSwap(i);
  EXPECT_EQ(i, 0x04030201);
  ExpectMirroredAndRestored<short>(0x1234);
  ExpectMirroredAndRestored<int>(0x01020304);
  ExpectMirroredAndRestored<unsigned int>(0xA1B2C3D4u);
  ExpectMirroredAndRestored<long long>(0x0102030405060708LL);
  ExpectMirroredAndRestored<float>(3.5f);
  ExpectMirroredAndRestored<double>(-1234.5625);
}

TEST(Endian, ArraySwapsTouchExactlyTheirItems) {
  uint32_t a4[4] = {0x01020304, 0x11121314, 0x21222324, 0xDEADBEEF};
  EndianSwapArray4(a4, 3);
  EXPECT_EQ(a4[0], 0x04030201u);
  EXPECT_EQ(a4[2], 0x24232221u);
  EXPECT_EQ(a4[3], 0xDEADBEEFu);  // guard after the run

  uint64_t a8[3] = {0x0102030405060708ULL, 0x1112131415161718ULL, 0xCAFEBABECAFEBABEULL};
  EndianSwapArray8(a8, 2);
  EXPECT_EQ(a8[0], 0x0807060504030201ULL);
  EXPECT_EQ(a8[1], 0x1817161514131211ULL);
  EXPECT_EQ(a8[2], 0xCAFEBABECAFEBABEULL);

  EndianSwapArray4(nullptr, 0);
  // A heap block of exactly n items: the sanitizer build catches an overrun.
  double* heap = new double[4]{1.0, 2.0, 3.0, 4.0};
  EndianSwapArray8(heap, 4);
  EndianSwapArray8(heap, 4);
  EXPECT_EQ(heap[3], 4.0);
  delete[] heap;
}

}  // namespace
