// Path simplification: whatever it is given, an accepted result never climbs
// above its start.
#include <cstdlib>
#include <cstring>
#include <string>

#include "cstr.h"

static void Check(const std::string& in, char sep) {
  CStr path(in.c_str(), (int)in.size());
  if (!path.PathSimplify(sep)) return;
  std::string out(path.c_str(), (size_t)path.Len);
  std::string wrapped = std::string(1, sep) + out + std::string(1, sep);
  const std::string up = std::string(1, sep) + ".." + std::string(1, sep);
  if (wrapped.find(up) != std::string::npos) abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string in(reinterpret_cast<const char*>(data), size);
  Check(in, '/');
  Check(in, '\\');
  return 0;
}
