// Server-side socket helpers on Windows: a file copied to the socket through
// a buffer, shutdown both ways, no corking, and the root directory.
#include "pl_sendfile.h"

#include <winsock2.h>

// A plain copy loop: bounded memory, no extra library to bind.
long long PlSendFile(PlSocket s, FILE* f) {
  char buf[16384];
  long long sent = 0;
  for (;;) {
    size_t got = fread(buf, 1, sizeof buf, f);
    if (got == 0) return sent;
    size_t done = 0;
    while (done < got) {
      int n = send((SOCKET)s, buf + done, (int)(got - done), 0);
      if (n <= 0) return -1;
      done += (size_t)n;
    }
    sent += (long long)got;
  }
}

// Windows has no cork; writes go out as the stack sees fit.
bool PlSockCork(PlSocket) { return false; }


const char* PlRootDir() { return "C:\\"; }
