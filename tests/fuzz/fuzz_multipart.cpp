// Multipart bodies: the input's first line is the boundary, the rest the
// body, posted to an engine so the server splits it into arguments.
#include "fuzz_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string in(reinterpret_cast<const char*>(data), size);
  size_t eol = in.find('\n');
  std::string boundary = eol == std::string::npos ? in : in.substr(0, eol);
  std::string body = eol == std::string::npos ? "" : in.substr(eol + 1);
  if (boundary.find('\r') != std::string::npos) return 0;
  ServeOne("POST /echo HTTP/1.1\r\nHost: localhost:8080\r\nContent-Type: multipart/form-data; boundary=" +
           boundary + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  return 0;
}
