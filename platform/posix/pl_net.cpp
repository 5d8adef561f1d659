// BSD sockets on POSIX: TCP listening, accepting, connecting and transfer,
// name lookup, and SIGPIPE kept away from the process.
#include "pl_net.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <mutex>

#include "pl_thread.h"

static int Fd(PlSocket s) { return s == PL_NO_SOCKET ? -1 : static_cast<int>(s); }

bool PlNetStartup() {
  PlNetNoSigPipe();
  return true;
}

void PlNetCleanup() {}

void PlNetNoSigPipe() {
  static std::once_flag once;
  std::call_once(once, [] {
    // An owner that installed its own handler keeps it.
    struct sigaction old;
    if (sigaction(SIGPIPE, nullptr, &old) == 0 && old.sa_handler == SIG_DFL) signal(SIGPIPE, SIG_IGN);
  });
}

// Replies are written in several small pieces (header, then body); without
// this the second piece can wait for the peer's delayed acknowledgement.
static bool NoDelay(int fd) {
  int on = 1;
  return setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) == 0;
}

bool PlSockNoDelay(PlSocket s) { return NoDelay(Fd(s)); }

PlSocket PlSockTcp() {
  PlNetNoSigPipe();
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return fd < 0 ? PL_NO_SOCKET : static_cast<PlSocket>(fd);
}

bool PlSockBind(PlSocket s, unsigned addrHostOrder, unsigned short port) {
  int on = 1;
  setsockopt(Fd(s), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  sockaddr_in sa;
  memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port);
  sa.sin_addr.s_addr = htonl(addrHostOrder);
  return bind(Fd(s), reinterpret_cast<sockaddr*>(&sa), sizeof sa) == 0;
}

bool PlSockListen(PlSocket s, int backlog) { return listen(Fd(s), backlog) == 0; }

bool PlSockDeferAccept(PlSocket s, int maxWaitSec) {
  return setsockopt(Fd(s), IPPROTO_TCP, TCP_DEFER_ACCEPT, &maxWaitSec, sizeof maxWaitSec) == 0;
}

// True for the accept errors that mean the listener itself is gone.
static bool ListenerGone(int err) {
  return err == EBADF || err == EINVAL || err == ENOTSOCK || err == EOPNOTSUPP;
}

static bool OutOfResources(int err) {
  return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

PlSocket PlSockAccept(PlSocket s, unsigned* remoteAddr, unsigned short* remotePort) {
  PlNetNoSigPipe();
  for (;;) {
    sockaddr_in sa;
    socklen_t len = sizeof sa;
    int fd = accept4(Fd(s), reinterpret_cast<sockaddr*>(&sa), &len, SOCK_CLOEXEC);
    if (fd >= 0) {
      if (remoteAddr) *remoteAddr = sa.sin_addr.s_addr;
      if (remotePort) *remotePort = ntohs(sa.sin_port);
      return static_cast<PlSocket>(fd);
    }
    int err = errno;
    if (ListenerGone(err)) return PL_NO_SOCKET;
    // Out of descriptors: give running connections time to end rather than
    // spinning; anything else concerned the one aborted connection.
    if (OutOfResources(err)) PlSleepMs(50);
  }
}

bool PlSockLocalAddr(PlSocket s, unsigned* addr, unsigned short* port) {
  sockaddr_in sa;
  socklen_t len = sizeof sa;
  if (getsockname(Fd(s), reinterpret_cast<sockaddr*>(&sa), &len) != 0) return false;
  if (addr) *addr = sa.sin_addr.s_addr;
  if (port) *port = ntohs(sa.sin_port);
  return true;
}

bool PlSockConnect(PlSocket s, unsigned addr, unsigned short port) {
  sockaddr_in sa;
  memset(&sa, 0, sizeof sa);
  sa.sin_family = AF_INET;
  sa.sin_port = htons(port);
  sa.sin_addr.s_addr = addr;
  if (connect(Fd(s), reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0) return false;
  NoDelay(Fd(s));
  return true;
}

// poll, not select: select can't watch descriptors above FD_SETSIZE and the
// server may hold more connections than that.
int PlSockWaitReadable(PlSocket s, int timeoutSec) {
  if (timeoutSec < 0) return PlSockWaitMs(s, false, -1);
  const long long ms = static_cast<long long>(timeoutSec) * 1000;
  return PlSockWaitMs(s, false, ms > INT_MAX ? INT_MAX : static_cast<int>(ms));
}

int PlSockWaitMs(PlSocket s, bool forWrite, int timeoutMs) {
  if (s == PL_NO_SOCKET) return -1;
  const bool forever = timeoutMs < 0;
  const uint64_t start = PlMonotonicMs();
  for (;;) {
    int waitMs = -1;
    if (!forever) {
      long long left = timeoutMs - static_cast<long long>(PlMonotonicMs() - start);
      waitMs = left < 0 ? 0 : static_cast<int>(left);
    }
    pollfd p;
    p.fd = Fd(s);
    p.events = forWrite ? POLLOUT : POLLIN;
    p.revents = 0;
    int r = poll(&p, 1, waitMs);
    if (r > 0) return 1;
    if (r == 0) return 0;
    if (errno != EINTR) return -1;
  }
}

int PlSockPoll(PlSocket s, int events, int timeoutMs) {
  if (s == PL_NO_SOCKET) return -1;
  pollfd p;
  p.fd = Fd(s);
  p.events = (short)(((events & PL_SOCK_IN) ? POLLIN : 0) | ((events & PL_SOCK_OUT) ? POLLOUT : 0));
  const uint64_t start = PlMonotonicMs();
  for (;;) {
    int waitMs = timeoutMs;
    if (timeoutMs >= 0) {
      long long left = timeoutMs - static_cast<long long>(PlMonotonicMs() - start);
      waitMs = left < 0 ? 0 : static_cast<int>(left);
    }
    p.revents = 0;
    int r = poll(&p, 1, waitMs);
    if (r == 0) return 0;
    if (r < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    // A hang-up or error counts as readable: the next receive tells which.
    int ready = (p.revents & (POLLIN | POLLHUP | POLLERR)) ? PL_SOCK_IN : 0;
    if (p.revents & (POLLOUT | POLLERR)) ready |= PL_SOCK_OUT;
    return ready & (events | PL_SOCK_IN);
  }
}

int PlSockSendSome(PlSocket s, const void* buf, int n) {
  if (n < 0) return -1;
  for (;;) {
    ssize_t r = send(Fd(s), buf, static_cast<size_t>(n), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (r >= 0) return static_cast<int>(r);
    if (errno == EAGAIN || errno == EWOULDBLOCK) return 0;
    if (errno != EINTR) return -1;
  }
}

bool PlSockSetNonBlocking(PlSocket s, bool on) {
  int flags = fcntl(Fd(s), F_GETFL, 0);
  if (flags < 0) return false;
  flags = on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK);
  return fcntl(Fd(s), F_SETFL, flags) == 0;
}

bool PlSockSetRecvTimeout(PlSocket s, int timeoutSec) {
  timeval tv;
  tv.tv_sec = timeoutSec > 0 ? timeoutSec : 0;
  tv.tv_usec = 0;
  return setsockopt(Fd(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
}

bool PlSockSetRecvTimeoutMs(PlSocket s, int timeoutMs) {
  timeval tv;
  tv.tv_sec = timeoutMs > 0 ? timeoutMs / 1000 : 0;
  tv.tv_usec = timeoutMs > 0 ? (timeoutMs % 1000) * 1000 : 0;
  return setsockopt(Fd(s), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv) == 0;
}

int PlSockSend(PlSocket s, const void* buf, int n) {
  if (n < 0) return -1;
  for (;;) {
    // MSG_NOSIGNAL: a closed peer gives EPIPE, never SIGPIPE.
    ssize_t r = send(Fd(s), buf, static_cast<size_t>(n), MSG_NOSIGNAL);
    if (r >= 0) return static_cast<int>(r);
    if (errno != EINTR) return -1;
  }
}

// One receive, retried when a signal cuts it short. A receive that would
// wait (non-blocking, or past the socket's time-out) is an error, or
// PL_SOCK_NOTHING_YET where the caller takes that as "not yet".
static int Receive(PlSocket s, void* buf, int n, int flags, bool waitIsNothingYet) {
  if (n < 0) return -1;
  for (;;) {
    ssize_t r = recv(Fd(s), buf, static_cast<size_t>(n), flags);
    if (r >= 0) return static_cast<int>(r);
    if (waitIsNothingYet && (errno == EAGAIN || errno == EWOULDBLOCK)) return PL_SOCK_NOTHING_YET;
    if (errno != EINTR) return -1;
  }
}

int PlSockRecv(PlSocket s, void* buf, int n) { return Receive(s, buf, n, 0, false); }
int PlSockRecvNoWait(PlSocket s, void* buf, int n) { return Receive(s, buf, n, MSG_DONTWAIT, true); }
int PlSockRecvTimed(PlSocket s, void* buf, int n) { return Receive(s, buf, n, 0, true); }

void PlSockShutdownSend(PlSocket s) { shutdown(Fd(s), SHUT_WR); }

void PlSockClose(PlSocket s) {
  if (s == PL_NO_SOCKET) return;
  // Closing a listening descriptor does not wake a thread blocked in accept
  // on Linux; shutting it down does.
  int listening = 0;
  socklen_t len = sizeof listening;
  if (getsockopt(Fd(s), SOL_SOCKET, SO_ACCEPTCONN, &listening, &len) == 0 && listening)
    shutdown(Fd(s), SHUT_RDWR);
  close(Fd(s));  // not retried on EINTR: the descriptor is gone either way
}

static bool LocalAddress(const char* path, sockaddr_un* sa) {
  memset(sa, 0, sizeof *sa);
  sa->sun_family = AF_UNIX;
  if (!path || strlen(path) >= sizeof sa->sun_path) return false;
  strcpy(sa->sun_path, path);
  return true;
}

static PlSocket LocalListen(const char* path, int backlog) {
  sockaddr_un sa;
  if (!LocalAddress(path, &sa)) return PL_NO_SOCKET;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return PL_NO_SOCKET;
  if (bind(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0 || listen(fd, backlog) != 0) {
    close(fd);
    return PL_NO_SOCKET;
  }
  return static_cast<PlSocket>(fd);
}

std::string PlLocalEndpointPath(const std::string& dir, const std::string& name) { return dir + "/" + name; }

bool PlLocalServeByChild(const char* path, PlFile* childStdIn, std::string*, PlSocket* ours) {
  *ours = LocalListen(path, 16);
  *childStdIn = (PlFile)*ours;
  return *ours != PL_NO_SOCKET;
}

PlSocket PlSockLocalConnect(const char* path) {
  PlNetNoSigPipe();
  sockaddr_un sa;
  if (!LocalAddress(path, &sa)) return PL_NO_SOCKET;
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return PL_NO_SOCKET;
  int r;
  do {
    r = connect(fd, reinterpret_cast<sockaddr*>(&sa), sizeof sa);
  } while (r != 0 && errno == EINTR);
  if (r != 0) {
    close(fd);
    return PL_NO_SOCKET;
  }
  return static_cast<PlSocket>(fd);
}

void PlSockCloseHandle(PlSocket s) {
  if (s != PL_NO_SOCKET) close(Fd(s));
}

void PlSockCloseConnected(PlSocket s) { PlSockCloseHandle(s); }

bool PlResolveHost(const char* host, unsigned* addr) {
  if (!host || !addr) return false;
  in_addr_t a = inet_addr(host);
  if (a != INADDR_NONE) {
    // A dotted address stands for itself; a reverse lookup would only add a
    // delay and fail for addresses without a name.
    *addr = a;
    return true;
  }
  addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host, nullptr, &hints, &res) != 0 || !res) return false;
  *addr = reinterpret_cast<sockaddr_in*>(res->ai_addr)->sin_addr.s_addr;
  freeaddrinfo(res);
  return true;
}

bool PlGetHostName(char* buf, int size) {
  if (!buf || size < 1) return false;
  if (gethostname(buf, static_cast<size_t>(size)) != 0) return false;
  buf[size - 1] = 0;
  return true;
}

unsigned PlHtonl(unsigned v) { return htonl(v); }
unsigned PlNtohl(unsigned v) { return ntohl(v); }

// strerror_r comes in two flavours (GNU returns the text, XSI fills buf).
[[maybe_unused]] static const char* ErrorText(const char* gnuResult, const char*) { return gnuResult; }
[[maybe_unused]] static const char* ErrorText(int xsiResult, const char* buf) { return xsiResult == 0 ? buf : ""; }

void PlLastErrorText(char* buf, int size) {
  const int err = errno;
  if (!buf || size < 1) return;
  char tmp[256];
  tmp[0] = 0;
  snprintf(buf, static_cast<size_t>(size), "%s", ErrorText(strerror_r(err, tmp, sizeof tmp), tmp));
}

void PlSockShutdownBoth(PlSocket s) {
  if (s != PL_NO_SOCKET) shutdown(Fd(s), SHUT_RDWR);
}

bool PlSockCork(PlSocket s) {
  int on = 1;
  return setsockopt(Fd(s), IPPROTO_TCP, TCP_CORK, &on, sizeof on) == 0;
}
