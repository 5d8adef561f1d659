// CSocket: one connected TCP stream, plain or TLS, with a 4096-byte input
// buffer, a receive time-out, line and block reads, and unbuffered writes.
#ifndef LUMETTA_CSOCKET_H
#define LUMETTA_CSOCKET_H

#include <cstdint>

#include "cstr.h"
#include "pl_net.h"

// The TLS library is bound at run time; these are its opaque types.
typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;
typedef struct ssl_method_st SSL_METHOD;

// Function table of the run-time-bound TLS library, in binding order.
struct OPENSSL_FUNCS {
  int (*OPENSSL_init_ssl)(uint64_t opts, const void* settings);
  int (*SSL_accept)(SSL* ssl);
  int (*SSL_CTX_check_private_key)(const SSL_CTX* ctx);
  void (*SSL_CTX_free)(SSL_CTX* ctx);
  SSL_CTX* (*SSL_CTX_new)(const SSL_METHOD* method);
  int (*SSL_CTX_use_certificate_file)(SSL_CTX* ctx, const char* file, int type);
  int (*SSL_CTX_use_PrivateKey_file)(SSL_CTX* ctx, const char* file, int type);
  void (*SSL_free)(SSL* ssl);
  int (*SSL_get_fd)(const SSL* ssl);
  SSL* (*SSL_new)(SSL_CTX* ctx);
  int (*SSL_read)(SSL* ssl, void* buf, int num);
  int (*SSL_shutdown)(SSL* ssl);
  int (*SSL_set_fd)(SSL* ssl, int fd);
  int (*SSL_write)(SSL* ssl, const void* buf, int num);
  const SSL_METHOD* (*TLS_server_method)(void);
  // Tells a non-blocking handshake that waits for the peer from a failure.
  int (*SSL_get_error)(const SSL* ssl, int ret);
};
// Filled once by CHttpServer::OpenSSLInit; read-only afterwards.
extern OPENSSL_FUNCS OpenSsl;

typedef bool (*CSOCKET_READ)(void* arg, int count);

class CSocket {
 public:
  PlSocket Socket;  // PL_NO_SOCKET when there is none; owned
  CSOCKET_READ ReadCallBack;
  void* ReadCallBackArg;
  SSL* Ssl;  // owned; NULL for a plain socket

  explicit CSocket(PlSocket sock = PL_NO_SOCKET);
  // TLS server side: runs the handshake (AcceptTls with kTlsHandshakeMs).
  // On failure it throws 1102 after freeing everything and closing sock, so
  // the caller must not close sock again.
  CSocket(PlSocket sock, SSL_CTX* ctx);
  // Server side of a TLS handshake on this plain socket, over within
  // deadlineMs however the peer paces its bytes. False on failure or time-out
  // (the socket stays open; the caller closes it).
  bool AcceptTls(SSL_CTX* ctx, int deadlineMs);
  static const int kTlsHandshakeMs = 10000;
  ~CSocket();
  CSocket(const CSocket&) = delete;
  CSocket& operator=(const CSocket&) = delete;

  void Connect(const char* host, int port);  // throws 708, 703, 702
  void Connect(const CStr& host, int port) { Connect(host.c_str(), port); }
  void Flush(int n);  // skips at least n bytes, whole buffers at a time
  int GetBufFree() const;  // bytes received and not yet handed out
  int Getc();
  char* Gets(char* buf, unsigned int size) { return GetUntil(buf, size, '\n', false); }
  // One whole line of any length. At end of input the result is
  // line.IsEmpty(): true with an empty line when nothing was read.
  bool Gets(CStr& line);
  int GetTimeOut() const { return TimeOut; }
  // NULL once input has ended (or for size 0); otherwise a possibly partial
  // line: a -1 from Getc (end of input or byte 0xFF) ends it early.
  char* GetUntil(char* buf, unsigned int size, char delim, bool dropDelim);
  int Puts(const char* s);
  int Puts(const CStr& s);
  int Read(void* buf, int n);  // n bytes unless input ends first; the count
  // Resizes the input buffer, keeping unread bytes that fit; the old buffer
  // is freed. False for 0 or when the memory can't be had.
  bool SetBuf(unsigned int size);
  // Takes effect at the next wait; a negative value waits without limit.
  void SetTimeOut(int seconds);
  // A point in time, ms from now, after which no wait for input goes on,
  // however the peer paces its bytes: input ends there. Negative: none.
  void SetDeadline(int ms);
  bool DeadlinePassed() const;
  int Write(const void* buf, int n);  // one unbuffered send: its count, 0 on failure
  bool IsEof() const { return Eof; }

 private:
  bool Eof;
  char* InBuf;
  int TimeOut;
  unsigned int InBufLen;
  unsigned int InBufPtr;
  unsigned int InBufSize;
  uint64_t Deadline;  // monotonic ms; 0: none

  // How long the next wait for input may last: the time-out, cut to the
  // deadline; -1 without either, 0 once the deadline has passed.
  int WaitMs() const;
  void FillInBuf();
  bool GetHost(const char* host, unsigned* addr);
  void Init(PlSocket sock);
  bool StartTls(SSL_CTX* ctx);
  void Release();
  // A failed plain receive leaves InBufLen all-ones. It is not end of input,
  // but it holds no bytes either: these treat it as an empty buffer.
  bool RecvFailed() const { return InBufLen > InBufSize; }
  unsigned Unread() const { return RecvFailed() || InBufPtr > InBufLen ? 0 : InBufLen - InBufPtr; }
};

#endif
