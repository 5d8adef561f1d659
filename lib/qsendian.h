// Byte-order helpers for data written or read in a stated byte order.
#ifndef LUMETTA_QSENDIAN_H
#define LUMETTA_QSENDIAN_H

// True on a machine that stores the low byte first.
bool EndianCheck();

// Reverse the bytes of the value in place.
void EndianSwap(short& v);
void EndianSwap(int& v);
void EndianSwap(unsigned int& v);
void EndianSwap(long long& v);
void EndianSwap(float& v);
void EndianSwap(double& v);

// Reverse each of the n 4-byte (8-byte) items starting at p. n counts items,
// not bytes: exactly n items are touched.
void EndianSwapArray4(void* p, unsigned int n);
void EndianSwapArray8(void* p, unsigned int n);

#endif
