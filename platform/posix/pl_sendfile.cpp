// A file copied to a socket by the kernel (sendfile) on Linux.
#include "pl_sendfile.h"

#include <errno.h>
#include <sys/sendfile.h>
#include <unistd.h>

long long PlSendFile(PlSocket s, PlFile f, long long len) {
  // The kernel reads through its own offset; asking for exactly the length
  // saves the call that would only report the end.
  off_t offset = 0;
  long long sent = 0;
  while (sent < len) {
    // One call moves at most about 2 GiB.
    long long want = len - sent < 0x40000000 ? len - sent : 0x40000000;
    ssize_t n = sendfile((int)s, (int)f, &offset, (size_t)want);
    if (n > 0) {
      sent += n;
      continue;
    }
    if (n == 0) return sent;  // the file got shorter
    if (errno == EINTR) continue;
    if (errno == EINVAL || errno == ENOSYS) return sent;  // not a regular file: treat as end
    return -1;
  }
  return sent;
}
