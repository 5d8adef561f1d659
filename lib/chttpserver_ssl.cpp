// TLS for the server through a TLS library bound by name at run time: nothing
// is linked at build time, so the program starts and serves plain HTTP on
// machines without it. The binding is process-wide and made once; the
// function table (OpenSsl, declared with CSocket) is read-only afterwards.
//
// OpenSSLSetLibraryName(name) chooses the shared library to bind; tests use
// it to see a missing library, installations to point at another build.

#include "chttpserver.h"
#include "pl_dl.h"
#include "dll.h"
#include "pl_thread.h"

namespace {

// Settings of the library's start-up: load the TLS and crypto error texts.
const uint64_t kInitLoadStrings = 0x200002;
const int kFilePem = 1;

PlMutex SslMutex;
DLLHANDLE SslLibrary = nullptr;
bool SslReady = false;
CStr SslLibraryName(PL_LIB_SSL);

bool BindTable() {
  OPENSSL_FUNCS& f = OpenSsl;
  bool bound = DllGetAddresses(&SslLibrary, SslLibraryName.c_str(),
      (void**)&f.OPENSSL_init_ssl, "OPENSSL_init_ssl", (void**)&f.SSL_accept, "SSL_accept",
      (void**)&f.SSL_CTX_check_private_key, "SSL_CTX_check_private_key",
      (void**)&f.SSL_CTX_free, "SSL_CTX_free", (void**)&f.SSL_CTX_new, "SSL_CTX_new",
      (void**)&f.SSL_CTX_use_certificate_file, "SSL_CTX_use_certificate_file",
      (void**)&f.SSL_CTX_use_PrivateKey_file, "SSL_CTX_use_PrivateKey_file",
      (void**)&f.SSL_free, "SSL_free", (void**)&f.SSL_get_fd, "SSL_get_fd", (void**)&f.SSL_new, "SSL_new",
      (void**)&f.SSL_read, "SSL_read", (void**)&f.SSL_shutdown, "SSL_shutdown",
      (void**)&f.SSL_set_fd, "SSL_set_fd", (void**)&f.SSL_write, "SSL_write",
      (void**)&f.TLS_server_method, "TLS_server_method", (void**)&f.SSL_get_error,
      "SSL_get_error", (void**)nullptr);
  // A partial binding leaves pointers into a library that has been released
  // again; no caller may see those.
  if (!bound) f = OPENSSL_FUNCS{};
  return bound;
}

}  // namespace

bool OpenSSLSetLibraryName(const char* name) {
  PlLock lock(SslMutex);
  if (SslReady || !name || !*name) return false;
  SslLibraryName = name;
  return true;
}

// Serialised so that two servers started on different threads bind once; a
// failed attempt is tried again by the next caller.
bool CHttpServer::OpenSSLInit() {
  PlLock lock(SslMutex);
  if (SslReady) return true;
  if (!BindTable()) return false;
  // The library reports failure with 0 (and never unloads once started), so
  // anything below 1 counts as a failed start.
  if (OpenSsl.OPENSSL_init_ssl(kInitLoadStrings, nullptr) < 1) return false;
  SslReady = true;
  return true;
}

SSL_CTX* CHttpServer::OpenSSLCreateCtx() {
  // A second Start must not leak the context of the first; sessions hold
  // their own reference, so releasing ours is safe.
  if (SslCtx && OpenSsl.SSL_CTX_free) OpenSsl.SSL_CTX_free(SslCtx);
  SslCtx = nullptr;
  if (SslCertFile.IsEmpty() || SslKeyFile.IsEmpty()) return nullptr;  // plain HTTP
  if (!OpenSSLInit()) throw (int)CERR_HTTPSRV_SSL_INIT;
  const SSL_METHOD* method = OpenSsl.TLS_server_method();
  SSL_CTX* ctx = method ? OpenSsl.SSL_CTX_new(method) : nullptr;
  if (!ctx) throw (int)CERR_HTTPSRV_SSL_INIT;
  if (OpenSsl.SSL_CTX_use_certificate_file(ctx, SslCertFile.c_str(), kFilePem) < 1) {
    OpenSsl.SSL_CTX_free(ctx);
    throw (int)CERR_HTTPSRV_SSL_CERT;
  }
  if (OpenSsl.SSL_CTX_use_PrivateKey_file(ctx, SslKeyFile.c_str(), kFilePem) < 1 ||
      OpenSsl.SSL_CTX_check_private_key(ctx) == 0) {
    OpenSsl.SSL_CTX_free(ctx);
    throw (int)CERR_HTTPSRV_SSL_KEY;
  }
  return ctx;
}
