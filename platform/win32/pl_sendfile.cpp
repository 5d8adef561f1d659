// A file copied to a socket through a buffer on Windows.
#include "pl_sendfile.h"

#include <winsock2.h>

// A plain copy loop: bounded memory, no extra library to bind.
long long PlSendFile(PlSocket s, PlFile f, long long len) {
  char buf[16384];
  long long sent = 0;
  while (sent < len) {
    unsigned want = len - sent < (long long)sizeof buf ? (unsigned)(len - sent) : (unsigned)sizeof buf;
    int got = PlFileRead(f, buf, want);
    if (got <= 0) return sent;
    int done = 0;
    while (done < got) {
      int n = send((SOCKET)s, buf + done, got - done, 0);
      if (n <= 0) return -1;
      done += n;
    }
    sent += got;
  }
  return sent;
}
