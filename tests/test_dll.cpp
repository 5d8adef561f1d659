// Run-time binding against real system libraries.
#include <gtest/gtest.h>

#include <string>

#include "dll.h"
#include "pl_dl.h"
#include "test_support.h"

using namespace testsup;

namespace {

typedef double (*UnaryMath)(double);

// A library with cos and sqrt, and one that the test program does not link
// (so its unloading shows), with one of its functions.
const char* MathLib() { return TestOnWindows() ? "msvcrt.dll" : "libm.so.6"; }
const char* UnlinkedLib() { return TestOnWindows() ? "version.dll" : "libz.so.1"; }
const char* UnlinkedFunction() { return TestOnWindows() ? "GetFileVersionInfoSizeA" : "crc32"; }

TEST(DllGetAddresses, BindsOnceAndSkipsTheWorkWhenBound) {
  DLLHANDLE h = nullptr;
  UnaryMath fnCos = nullptr, fnSqrt = nullptr, untouched = nullptr;
  ASSERT_TRUE(DllGetAddresses(&h, MathLib(), (void**)&fnCos, "cos", (void**)&fnSqrt, "sqrt", NULL));
  ASSERT_TRUE(h && fnCos && fnSqrt);
  EXPECT_DOUBLE_EQ(fnCos(0.0) + fnSqrt(16.0), 5.0);
  EXPECT_TRUE(DllGetAddresses(&h, "no-such-library.so", (void**)&untouched, "cos", NULL));
  EXPECT_EQ(untouched, nullptr);
  DllFree(h);
  h = nullptr;
  EXPECT_FALSE(DllGetAddresses(&h, "liblumetta-does-not-exist.so.9", (void**)&fnCos, "cos", NULL));
  EXPECT_EQ(h, nullptr);
}

// A name may list alternatives (a newer build's library, then an older
// one's): the first that loads is bound.
TEST(DllGetAddresses, TakesTheFirstAlternativeThatLoads) {
  DLLHANDLE h = nullptr;
  UnaryMath fnSqrt = nullptr;
  std::string names = std::string("liblumetta-absent-9.so|") + MathLib() + "|" + UnlinkedLib();
  ASSERT_TRUE(DllGetAddresses(&h, names.c_str(), (void**)&fnSqrt, "sqrt", NULL));
  EXPECT_DOUBLE_EQ(fnSqrt(9.0), 3.0);
  DllFree(h);
  h = nullptr;
  EXPECT_FALSE(DllGetAddresses(&h, "liblumetta-absent-9.so||", (void**)&fnSqrt, "sqrt", NULL));
  EXPECT_EQ(h, nullptr);
}

TEST(DllGetAddresses, MissingSymbolUnloadsAndKeepsEarlierPointers) {
  const char* lib = UnlinkedLib();
  if (PlDlIsLoaded(lib)) GTEST_SKIP() << lib << " already mapped by the process";
  DLLHANDLE h = nullptr;
  void* fnCrc = nullptr;
  void* fnMissing = reinterpret_cast<void*>(1);
  EXPECT_FALSE(DllGetAddresses(&h, lib, &fnCrc, UnlinkedFunction(), &fnMissing, "no_such_function_xyz", NULL));
  EXPECT_EQ(h, nullptr);
  EXPECT_NE(fnCrc, nullptr);
  EXPECT_EQ(fnMissing, nullptr);
  EXPECT_FALSE(PlDlIsLoaded(lib));
}

}  // namespace
