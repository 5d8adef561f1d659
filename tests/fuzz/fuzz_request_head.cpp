// The request line and headers as any client may send them, through the
// server's own reading, admission and dispatch.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static bool keyed = FuzzServer().SetAccessKey("fuzzkey");
  (void)keyed;
  ServeOne(std::string(reinterpret_cast<const char*>(data), size));
  return 0;
}
