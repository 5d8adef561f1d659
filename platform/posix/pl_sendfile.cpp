// Server-side socket helpers on Linux: sendfile, shutdown both ways, corking,
// and the root directory.
#include "pl_sendfile.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

long long PlSendFile(PlSocket s, FILE* f) {
  int in = fileno(f);
  if (in < 0) return 0;
  // The kernel reads through its own offset, so the stream's position and
  // buffer are left alone (and stay stale: the caller only closes it).
  off_t offset = 0;
  long long sent = 0;
  for (;;) {
    // One call moves at most about 2 GiB; 0 means the end of the file.
    ssize_t n = sendfile((int)s, in, &offset, 0x40000000);
    if (n > 0) {
      sent += n;
      continue;
    }
    if (n == 0) return sent;
    if (errno == EINTR) continue;
    if (errno == EINVAL || errno == ENOSYS) return sent;  // not a regular file: treat as end
    return -1;
  }
}

void PlSockShutdownBoth(PlSocket s) {
  if (s != PL_NO_SOCKET) shutdown((int)s, SHUT_RDWR);
}

bool PlSockCork(PlSocket s) {
  int on = 1;
  return setsockopt((int)s, IPPROTO_TCP, TCP_CORK, &on, sizeof on) == 0;
}


const char* PlRootDir() { return "/"; }
