// Run-time binding against real system libraries.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include "dll.h"

namespace {

typedef double (*UnaryMath)(double);
typedef unsigned long (*Crc32Fn)(unsigned long, const unsigned char*, unsigned);

// True when the library is currently mapped into the process (checked
// without loading it).
bool IsLoaded(const char* name) {
  void* h = dlopen(name, RTLD_NOW | RTLD_NOLOAD);
  if (!h) return false;
  dlclose(h);
  return true;
}

TEST(DllGetAddresses, BindsFunctionsAndSkipsWorkOnceBound) {
  DLLHANDLE h = nullptr;
  UnaryMath fnCos = nullptr, fnSqrt = nullptr;
  ASSERT_TRUE(DllGetAddresses(&h, "libm.so.6", (void**)&fnCos, "cos", (void**)&fnSqrt, "sqrt", NULL));
  ASSERT_NE(h, nullptr);
  ASSERT_NE(fnCos, nullptr);
  ASSERT_NE(fnSqrt, nullptr);
  EXPECT_DOUBLE_EQ(fnCos(0.0), 1.0);
  EXPECT_DOUBLE_EQ(fnSqrt(16.0), 4.0);

  // Already bound: nothing is looked up, so even a bogus list succeeds and
  // leaves its variable alone.
  UnaryMath untouched = nullptr;
  DLLHANDLE before = h;
  EXPECT_TRUE(DllGetAddresses(&h, "no-such-library.so", (void**)&untouched, "cos", NULL));
  EXPECT_EQ(h, before);
  EXPECT_EQ(untouched, nullptr);
  DllFree(h);
}

TEST(DllGetAddresses, MissingSymbolUnloadsAndKeepsEarlierPointers) {
  // zlib is not linked into the test, so its unloading can be observed.
  const char* lib = "libz.so.1";
  if (IsLoaded(lib)) GTEST_SKIP() << lib << " already mapped by the process";
  DLLHANDLE h = nullptr;
  Crc32Fn fnCrc = nullptr;
  void* fnMissing = reinterpret_cast<void*>(1);
  EXPECT_FALSE(DllGetAddresses(&h, lib, (void**)&fnCrc, "crc32", &fnMissing, "no_such_function_xyz", NULL));
  EXPECT_EQ(h, nullptr);
  EXPECT_NE(fnCrc, nullptr);  // bound before the failure: kept
  EXPECT_EQ(fnMissing, nullptr);
  EXPECT_FALSE(IsLoaded(lib));
}

TEST(DllGetAddresses, MissingLibraryAndEmptyList) {
  DLLHANDLE h = nullptr;
  UnaryMath fn = nullptr;
  EXPECT_FALSE(DllGetAddresses(&h, "liblumetta-does-not-exist.so.9", (void**)&fn, "cos", NULL));
  EXPECT_EQ(h, nullptr);
  EXPECT_EQ(fn, nullptr);

  // An empty list just loads the library.
  EXPECT_TRUE(DllGetAddresses(&h, "libm.so.6", NULL));
  EXPECT_NE(h, nullptr);
  DllFree(h);
  DllFree(nullptr);  // harmless
}

}  // namespace
