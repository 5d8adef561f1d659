// Placeholder until the formatting engine lands: delegates to the runtime.
#include "cprintf.h"

#include <cstdio>
#include <cstdlib>

char* QsVmPrintf(const char* fmt, va_list ap) {
  va_list copy;
  va_copy(copy, ap);
  int n = vsnprintf(nullptr, 0, fmt, copy);
  va_end(copy);
  if (n < 0) return nullptr;
  char* out = static_cast<char*>(malloc((size_t)n + 1));
  if (out) vsnprintf(out, (size_t)n + 1, fmt, ap);
  return out;
}

char* QsMPrintf(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  char* r = QsVmPrintf(fmt, ap);
  va_end(ap);
  return r;
}

char* QsSnPrintf(int size, char* buf, const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  vsnprintf(buf, (size_t)size, fmt, ap);
  va_end(ap);
  return buf;
}
