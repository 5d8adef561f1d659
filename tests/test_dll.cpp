// Run-time binding against real system libraries.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include "dll.h"

namespace {

typedef double (*UnaryMath)(double);

bool IsLoaded(const char* name) {
  void* h = dlopen(name, RTLD_NOW | RTLD_NOLOAD);
  if (h) dlclose(h);
  return h != nullptr;
}

TEST(DllGetAddresses, BindsOnceAndSkipsTheWorkWhenBound) {
  DLLHANDLE h = nullptr;
  UnaryMath fnCos = nullptr, fnSqrt = nullptr, untouched = nullptr;
  ASSERT_TRUE(DllGetAddresses(&h, "libm.so.6", (void**)&fnCos, "cos", (void**)&fnSqrt, "sqrt", NULL));
  ASSERT_TRUE(h && fnCos && fnSqrt);
  EXPECT_DOUBLE_EQ(fnCos(0.0) + fnSqrt(16.0), 5.0);
  EXPECT_TRUE(DllGetAddresses(&h, "no-such-library.so", (void**)&untouched, "cos", NULL));
  EXPECT_EQ(untouched, nullptr);
  DllFree(h);
  h = nullptr;
  EXPECT_FALSE(DllGetAddresses(&h, "liblumetta-does-not-exist.so.9", (void**)&fnCos, "cos", NULL));
  EXPECT_EQ(h, nullptr);
}

TEST(DllGetAddresses, MissingSymbolUnloadsAndKeepsEarlierPointers) {
  const char* lib = "libz.so.1";  // not linked in, so its unloading shows
  if (IsLoaded(lib)) GTEST_SKIP() << lib << " already mapped by the process";
  DLLHANDLE h = nullptr;
  void* fnCrc = nullptr;
  void* fnMissing = reinterpret_cast<void*>(1);
  EXPECT_FALSE(DllGetAddresses(&h, lib, &fnCrc, "crc32", &fnMissing, "no_such_function_xyz", NULL));
  EXPECT_EQ(h, nullptr);
  EXPECT_NE(fnCrc, nullptr);
  EXPECT_EQ(fnMissing, nullptr);
  EXPECT_FALSE(IsLoaded(lib));
}

}  // namespace
