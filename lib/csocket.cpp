// CSocket: connecting and starting TLS, the 4 KiB input buffer and its
// refills, then the reads and writes built on them.
#include "csocket.h"

#include <climits>
#include <cstring>
#include <new>

#include "cerror.h"
#include "pl_thread.h"

OPENSSL_FUNCS OpenSsl = {};

// A failed plain receive (-1) is stored in InBufLen as it comes, all ones,
// and is deliberately not end of input: the next read tries the socket again
// (after a reset the system then reports the end). Such a buffer holds no
// bytes, so the call that hit it ends early without reading past InBuf:
// Getc gives -1, GetUntil returns the partial line, Gets(CStr&) ends as at
// end of input, Read returns a short count, Flush stops. Eof stays clear.

CSocket::CSocket(PlSocket sock) : Ssl(nullptr) { Init(sock); }

CSocket::CSocket(PlSocket sock, SSL_CTX* ctx) : Ssl(nullptr) {
  Init(sock);
  if (!AcceptTls(ctx, kTlsHandshakeMs)) {
    Release();  // the destructor won't run for a constructor that throws
    throw static_cast<int>(CERR_SOCK_SSL);
  }
}

bool CSocket::AcceptTls(SSL_CTX* ctx, int deadlineMs) {
  PlNetNoSigPipe();  // the TLS library writes to the socket on its own
  // Non-blocking, so that each wait for the peer is cut to what is left of
  // the deadline: a time-out per receive would let a client that trickles
  // one byte at a time keep the handshake going for ever.
  if (!PlSockSetNonBlocking(Socket, true)) return false;
  SetDeadline(deadlineMs);
  bool ok = StartTls(ctx);
  SetDeadline(-1);
  if (!PlSockSetNonBlocking(Socket, false)) ok = false;
  // Later receives happen inside the TLS library, out of FillInBuf's wait;
  // a socket-level time-out bounds them.
  PlSockSetRecvTimeout(Socket, TimeOut);
  return ok;
}

CSocket::~CSocket() { Release(); }

void CSocket::Init(PlSocket sock) {
  Eof = false;
  InBuf = nullptr;
  InBufLen = InBufPtr = InBufSize = 0;
  Socket = sock;
  ReadCallBack = nullptr;
  ReadCallBackArg = nullptr;
  TimeOut = 60;
  Deadline = 0;
  SetBuf(4096);
}

bool CSocket::StartTls(SSL_CTX* ctx) {
  if (!OpenSsl.SSL_new || !OpenSsl.SSL_set_fd || !OpenSsl.SSL_accept || !OpenSsl.SSL_free) return false;
  Ssl = OpenSsl.SSL_new(ctx);
  if (!Ssl) return false;
  if (OpenSsl.SSL_set_fd(Ssl, static_cast<int>(Socket)) == 0) return false;
  for (;;) {
    int r = OpenSsl.SSL_accept(Ssl);
    if (r >= 1) return true;
    int why = OpenSsl.SSL_get_error ? OpenSsl.SSL_get_error(Ssl, r) : 0;
    const int kWantRead = 2, kWantWrite = 3;
    if (why != kWantRead && why != kWantWrite) return false;
    int left = WaitMs();
    if (left == 0 || PlSockWaitMs(Socket, why == kWantWrite, left) != 1) return false;
  }
}

void CSocket::SetDeadline(int ms) {
  Deadline = ms < 0 ? 0 : PlMonotonicMs() + static_cast<uint64_t>(ms);
  if (ms < 0 && Ssl) PlSockSetRecvTimeout(Socket, TimeOut);  // undo the cut in FillInBuf
}

bool CSocket::DeadlinePassed() const { return Deadline && PlMonotonicMs() >= Deadline; }

int CSocket::WaitMs() const {
  long long wait = TimeOut < 0 ? -1 : static_cast<long long>(TimeOut) * 1000;
  if (Deadline) {
    uint64_t now = PlMonotonicMs();
    long long left = now >= Deadline ? 0 : static_cast<long long>(Deadline - now);
    if (wait < 0 || left < wait) wait = left;
  }
  return wait > INT_MAX ? INT_MAX : static_cast<int>(wait);
}

// No TLS shutdown exchange: the connection simply closes.
void CSocket::Release() {
  if (Ssl) {
    if (OpenSsl.SSL_get_fd) OpenSsl.SSL_get_fd(Ssl);
    OpenSsl.SSL_free(Ssl);
    Ssl = nullptr;
  }
  if (Socket != PL_NO_SOCKET) {
    PlSockCloseConnected(Socket);
    Socket = PL_NO_SOCKET;
  }
  delete[] InBuf;
  InBuf = nullptr;
}

void CSocket::FillInBuf() {
  if (Eof) return;
  if (Unread() > 0) return;  // refill only a drained buffer
  if (Ssl) {
    if (Deadline) {
      // The TLS library receives by itself: the nearest bound is the
      // socket's own time-out, set to what is left (whole seconds).
      int left = WaitMs();
      if (left == 0) {
        Eof = true;
        InBufLen = InBufPtr = 0;
        return;
      }
      PlSockSetRecvTimeout(Socket, (left + 999) / 1000);
    }
    int r = OpenSsl.SSL_read(Ssl, InBuf, static_cast<int>(InBufSize));
    if (r < 1) {
      Eof = true;
      InBufLen = InBufPtr = 0;
      return;
    }
    InBufLen = static_cast<unsigned>(r);
  } else {
    if (Socket == PL_NO_SOCKET) {  // nothing can ever arrive
      Eof = true;
      return;
    }
    // What has already arrived is taken without a wait (a request usually
    // comes with its connection). Otherwise a time-out ends the input; a
    // wait error falls through to the receive, which then reports it.
    int got = PlSockRecvNoWait(Socket, InBuf, static_cast<int>(InBufSize));
    if (got == PL_SOCK_NOTHING_YET) {
      if (PlSockWaitMs(Socket, false, WaitMs()) == 0) {
        Eof = true;
        return;
      }
      got = PlSockRecv(Socket, InBuf, static_cast<int>(InBufSize));
    }
    InBufLen = static_cast<unsigned>(got);
  }
  InBufPtr = 0;
  Eof = InBufLen == 0;
  // The observer hears of real data only, never of a failed receive.
  if (!Eof && !RecvFailed() && ReadCallBack && !ReadCallBack(ReadCallBackArg, static_cast<int>(InBufLen)))
    Eof = true;
}

void CSocket::Connect(const char* host, int port) {
  if (Socket != PL_NO_SOCKET) {
    PlSockClose(Socket);
    Socket = PL_NO_SOCKET;
  }
  Socket = PlSockTcp();
  if (Socket == PL_NO_SOCKET) throw static_cast<int>(CERR_SOCK_CREATE);
  unsigned addr = 0;
  if (!GetHost(host, &addr)) throw static_cast<int>(CERR_SOCK_HOST);
  if (!PlSockConnect(Socket, addr, static_cast<unsigned short>(port))) throw static_cast<int>(CERR_SOCK_CONNECT);
}

bool CSocket::GetHost(const char* host, unsigned* addr) { return PlResolveHost(host, addr); }

// Skips whole buffers, so more than n bytes may go: that is what skipping an
// unwanted request body needs, and it never waits for bytes beyond them.
void CSocket::Flush(int n) {
  long long count = 0;
  while (!Eof && count < n) {
    FillInBuf();
    if (RecvFailed()) break;
    count += Unread();
    InBufPtr = InBufLen;
  }
}

int CSocket::GetBufFree() const { return static_cast<int>(Unread()); }

// Signed on purpose: byte 0xFF comes back as -1, like end of input.
int CSocket::Getc() {
  if (!Eof && InBufPtr < InBufLen && InBufLen <= InBufSize)  // served from memory
    return static_cast<signed char>(InBuf[InBufPtr++]);
  FillInBuf();
  if (Eof || Unread() == 0) return -1;
  return static_cast<signed char>(InBuf[InBufPtr++]);
}

char* CSocket::GetUntil(char* buf, unsigned int size, char delim, bool dropDelim) {
  if (Eof || !buf || size == 0) return nullptr;
  unsigned i = 0;
  while (i < size - 1) {
    if (!Eof && InBufPtr < InBufLen && InBufLen <= InBufSize) {
      // What has arrived is copied in one piece, up to the delimiter.
      const char* from = InBuf + InBufPtr;
      unsigned avail = InBufLen - InBufPtr;
      if (avail > size - 1 - i) avail = size - 1 - i;
      const char* hit = static_cast<const char*>(memchr(from, delim, avail));
      unsigned take = hit ? static_cast<unsigned>(hit - from) + 1 : avail;
      // Byte 0xFF ends the line as the end of input does (Getc's -1).
      if (const char* ff = static_cast<const char*>(memchr(from, 0xFF, take))) {
        unsigned k = static_cast<unsigned>(ff - from);
        memcpy(buf + i, from, k);
        i += k;
        InBufPtr += k + 1;
        break;
      }
      memcpy(buf + i, from, take);
      InBufPtr += take;
      i += take;
      if (hit) {
        if (dropDelim) --i;
        break;
      }
      continue;
    }
    int ch = Getc();  // receives more
    if (ch == -1) break;
    buf[i] = static_cast<char>(ch);
    if (static_cast<char>(ch) == delim) {
      if (!dropDelim) ++i;
      break;
    }
    ++i;
  }
  buf[i] = 0;
  return buf;
}

bool CSocket::Gets(CStr& line) {
  line.Empty();
  char piece[256];
  for (;;) {
    if (!GetUntil(piece, sizeof piece, '\n', false)) return line.IsEmpty();
    line += piece;
    if (line.Last() == '\n') return true;
    if (RecvFailed()) return line.IsEmpty();  // nothing more this time
  }
}

int CSocket::Puts(const char* s) { return s ? Write(s, static_cast<int>(strlen(s))) : 0; }

int CSocket::Puts(const CStr& s) { return Write(s.Data(), s.Length()); }

int CSocket::Read(void* buf, int n) {
  char* out = static_cast<char*>(buf);
  int got = 0;
  while (!Eof && got < n) {
    FillInBuf();
    if (RecvFailed()) break;
    unsigned take = Unread();
    if (take > static_cast<unsigned>(n - got)) take = static_cast<unsigned>(n - got);
    if (take) memcpy(out + got, InBuf + InBufPtr, take);
    InBufPtr += take;
    got += static_cast<int>(take);
  }
  return got;
}

bool CSocket::SetBuf(unsigned int size) {
  if (size == 0 || size > INT_MAX) return false;  // receives take an int count
  if (size == InBufSize) return true;
  char* buf = new (std::nothrow) char[size];
  if (!buf) return false;
  if (InBuf && !RecvFailed()) {
    if (size < InBufLen) {
      // Shrinking below the received bytes drops the tail.
      memcpy(buf, InBuf, size);
      if (InBufPtr > size) InBufPtr = size;
      InBufLen = size;
    } else if (InBufLen) {
      memcpy(buf, InBuf, InBufLen);
    }
  }
  delete[] InBuf;
  InBuf = buf;
  InBufSize = size;
  return true;
}

void CSocket::SetTimeOut(int seconds) {
  TimeOut = seconds;
  if (Ssl) PlSockSetRecvTimeout(Socket, seconds);
}

// One send, no retry: the caller compares the count with what it asked for.
int CSocket::Write(const void* buf, int n) {
  if (Ssl) {
    int r = OpenSsl.SSL_write(Ssl, buf, n);
    return r >= 0 ? r : 0;
  }
  int r = PlSockSend(Socket, buf, n);
  return r != -1 ? r : 0;
}
