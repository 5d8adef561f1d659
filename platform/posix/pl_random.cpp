// Random bytes on POSIX systems: the kernel's getrandom where it exists,
// /dev/urandom otherwise.
#include "pl_random.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

namespace {

// For kernels without getrandom: the same pool through its device.
bool ReadUrandom(unsigned char* out, int n) {
  int fd = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  int got = 0;
  while (got < n) {
    ssize_t r = read(fd, out + got, static_cast<size_t>(n - got));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) break;
    got += static_cast<int>(r);
  }
  close(fd);
  return got == n;
}

}  // namespace

bool PlRandomBytes(void* buf, int n) {
  unsigned char* out = static_cast<unsigned char*>(buf);
  int got = 0;
  while (got < n) {
    ssize_t r = getrandom(out + got, static_cast<size_t>(n - got), 0);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) return ReadUrandom(out + got, n - got);
    got += static_cast<int>(r);
  }
  return n >= 0;
}
