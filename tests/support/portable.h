// What the tests need to run on Linux and, cross-built, on Windows (under
// wine): the platform asked at run time, so test code has no #ifdef, and a
// skip that prints why a case cannot run here.
#ifndef LUMETTA_TESTS_PORTABLE_H
#define LUMETTA_TESTS_PORTABLE_H

#include <gtest/gtest.h>

#include <string>

#include "pl_dl.h"
#include "pl_fs.h"
#include "pl_process.h"

inline bool TestOnWindows() { return PL_PATH_SEP == '\\'; }

// Skips the current test on Windows with the reason printed.
#define SKIP_ON_WINDOWS(reason) \
  if (TestOnWindows()) GTEST_SKIP() << "not on Windows: " << reason

// True when running under wine, whose system differs from Windows in a few
// places that tests can see.
inline bool TestUnderWine() {
  void* ntdll = TestOnWindows() ? PlDlOpen("ntdll.dll") : nullptr;
  bool wine = ntdll && PlDlSymbol(ntdll, "wine_get_version");
  PlDlClose(ntdll);
  return wine;
}

// A program file name as the platform spells it ("x" or "x.exe").
inline std::string TestExeName(const std::string& base) {
  return TestOnWindows() ? base + ".exe" : base;
}

// A path written with "/" in the platform's own form.
inline std::string TestNativePath(std::string path) {
  if (TestOnWindows())
    for (char& c : path)
      if (c == '/') c = '\\';
  return path;
}

// True when the run-time library (one of PlDlOpen's names) can be loaded here.
inline bool TestLibraryPresent(const char* names) {
  void* lib = PlDlOpen(names);
  PlDlClose(lib);
  return lib != nullptr;
}

// Sets or (value null) removes an environment variable of the test process.
inline void TestSetEnv(const char* name, const char* value) { PlSetEnv(name, value); }

#endif
