// What the tests ask of the platform at run time, so one test source runs on
// Linux and, cross-built, on Windows (under wine).
#include "test_support.h"

namespace testsup {

bool TestUnderWine() {
  void* ntdll = TestOnWindows() ? PlDlOpen("ntdll.dll") : nullptr;
  bool wine = ntdll && PlDlSymbol(ntdll, "wine_get_version");
  PlDlClose(ntdll);
  return wine;
}

std::string TestExeName(const std::string& base) { return TestOnWindows() ? base + ".exe" : base; }

std::string TestNativePath(std::string path) {
  if (TestOnWindows())
    for (char& c : path)
      if (c == '/') c = '\\';
  return path;
}

bool TestLibraryPresent(const char* names) {
  void* lib = PlDlOpen(names);
  PlDlClose(lib);
  return lib != nullptr;
}

}  // namespace testsup
