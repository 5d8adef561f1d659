// Reading and writing a whole file in one go, for the file helpers of CStr
// and CMem.
#include "cfileio.h"

#include <cstdio>
#include <new>

bool ReadWholeFile(const char* name, long long maxSize, int extra, char** block, long long* size) {
  *block = nullptr;
  *size = 0;
  if (!name || !*name) return false;
  FILE* f = fopen(name, "rb");
  if (!f) return false;
  long n = -1;
  if (fseek(f, 0, SEEK_END) == 0) n = ftell(f);
  bool ok = n == 0;
  if (n > 0 && n <= maxSize && fseek(f, 0, SEEK_SET) == 0) {
    char* data = new (std::nothrow) char[(size_t)n + (size_t)extra];
    ok = data && fread(data, 1, (size_t)n, f) == (size_t)n;
    if (ok) {
      *block = data;
      *size = n;
    } else {
      delete[] data;
    }
  }
  fclose(f);
  return ok;
}

bool WriteWholeFile(const char* name, const void* p, long long n) {
  if (!name || !*name) return false;
  FILE* f = fopen(name, "wb");
  if (!f) return false;
  bool ok = n <= 0 || fwrite(p, 1, (size_t)n, f) == (size_t)n;
  if (fclose(f) != 0) ok = false;
  return ok;
}
