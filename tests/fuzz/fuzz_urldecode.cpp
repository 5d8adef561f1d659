// URL decoding: never longer than its input, and a text without '%' or '+'
// comes back unchanged.
#include <cstdlib>
#include <cstring>
#include <string>

#include "cstr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string in(reinterpret_cast<const char*>(data), size);
  CStr s(in.c_str(), (int)in.size());
  s.UrlDecode();
  if (s.Len > (int)in.size()) abort();
  if (in.find_first_of("%+") == std::string::npos && std::string(s.c_str(), (size_t)s.Len) != in) abort();
  return 0;
}
