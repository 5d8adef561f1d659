// Random bytes on Windows, from the system's preferred generator.
#include "pl_random.h"

#include <windows.h>
#include <bcrypt.h>

bool PlRandomBytes(void* buf, int n) {
  if (n < 0) return false;
  NTSTATUS r = BCryptGenRandom(nullptr, static_cast<PUCHAR>(buf), static_cast<ULONG>(n),
                               BCRYPT_USE_SYSTEM_PREFERRED_RNG);
  return r >= 0;
}
