// Byte-order helpers: the machine's own order and in-place swaps of single
// values and runs of items.
#include "qsendian.h"

#include <algorithm>
#include <cstring>

namespace {
void ReverseBytes(unsigned char* p, unsigned size) {
  std::reverse(p, p + size);
}

// Works on a byte copy so float and double never pass through an integer
// reinterpretation (and unaligned callers are fine).
template <typename T>
void SwapValue(T& v) {
  unsigned char bytes[sizeof(T)];
  memcpy(bytes, &v, sizeof(T));
  ReverseBytes(bytes, sizeof(T));
  memcpy(&v, bytes, sizeof(T));
}

void SwapItems(void* p, unsigned int n, unsigned size) {
  unsigned char* bytes = static_cast<unsigned char*>(p);
  for (unsigned int i = 0; i < n; i++, bytes += size) ReverseBytes(bytes, size);
}
}  // namespace

bool EndianCheck() {
  int one = 1;
  unsigned char first;
  memcpy(&first, &one, 1);
  return first != 0;
}

void EndianSwap(short& v) { SwapValue(v); }
void EndianSwap(int& v) { SwapValue(v); }
void EndianSwap(unsigned int& v) { SwapValue(v); }
void EndianSwap(long long& v) { SwapValue(v); }
void EndianSwap(float& v) { SwapValue(v); }
void EndianSwap(double& v) { SwapValue(v); }

// The count is taken as a number of items and not scaled by the item size:
// the stream layer passes item counts, and scaling them would swap (and
// overrun) memory beyond the items it actually read or wrote.
void EndianSwapArray4(void* p, unsigned int n) { SwapItems(p, n, 4); }
void EndianSwapArray8(void* p, unsigned int n) { SwapItems(p, n, 8); }
