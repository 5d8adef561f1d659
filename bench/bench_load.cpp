// What the run-time-bound libraries cost on first use:
//   SQLite: binding the fourteen functions, then opening a new database file;
//   TLS: binding and starting the library, making the server context, and
//   the first handshake with a client in the same process.
// Usage: bench_load [directory for scratch files]   (default: /tmp)
// Needs the openssl command to make a certificate (not timed).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cdatabase.h"
#include "chttpserver.h"
#include "dll.h"
#include "pl_net.h"

namespace {

double Ms(std::chrono::steady_clock::time_point a, std::chrono::steady_clock::time_point b) {
  return std::chrono::duration<double, std::milli>(b - a).count();
}

// The client half of a handshake, bound the same way as the server's.
struct ClientApi {
  const SSL_METHOD* (*TLS_client_method)(void);
  SSL_CTX* (*SSL_CTX_new)(const SSL_METHOD*);
  void (*SSL_CTX_free)(SSL_CTX*);
  SSL* (*SSL_new)(SSL_CTX*);
  int (*SSL_set_fd)(SSL*, int);
  int (*SSL_connect)(SSL*);
  void (*SSL_free)(SSL*);
};

void BenchSqlite(const std::string& dir) {
  std::string file = dir + "/bench_load.db";
  std::remove(file.c_str());
  auto t0 = std::chrono::steady_clock::now();
  CDatabase db;  // binds the library
  auto t1 = std::chrono::steady_clock::now();
  db.Open(file.c_str());
  auto t2 = std::chrono::steady_clock::now();
  db.Exec("CREATE TABLE t (v TEXT);");
  auto t3 = std::chrono::steady_clock::now();
  printf("sqlite: bind %.2f ms, open %.2f ms, first statement %.2f ms, bind+open %.2f ms\n", Ms(t0, t1),
         Ms(t1, t2), Ms(t2, t3), Ms(t0, t2));
  db.Close();
  std::remove(file.c_str());
}

bool BenchTls(const std::string& dir) {
  std::string cert = dir + "/bench_cert.pem", key = dir + "/bench_key.pem";
  std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -keyout '" + key +
                    "' -out '" + cert + "' >/dev/null 2>&1";
  if (std::system(cmd.c_str()) != 0) return false;

  CHttpServer srv;
  srv.SetHomeDir(dir.c_str());
  srv.SslCertFile = cert.c_str();
  srv.SslKeyFile = key.c_str();
  srv.SslEnabled = true;
  srv.SetListeningAddr(0x7f000001);

  auto t0 = std::chrono::steady_clock::now();
  if (!CHttpServer::OpenSSLInit()) return false;
  auto t1 = std::chrono::steady_clock::now();
  srv.SslCtx = srv.OpenSSLCreateCtx();
  auto t2 = std::chrono::steady_clock::now();

  unsigned short port = 0;
  for (unsigned short p = 41000; p < 41100 && !port; ++p)
    if (srv.SetPortA(p) && srv.StartListening()) port = p;
  if (!port || !srv.StartAccepting()) return false;

  ClientApi api;
  DLLHANDLE h = nullptr;
  if (!DllGetAddresses(&h, "libssl.so.3", (void**)&api.TLS_client_method, "TLS_client_method",
                       (void**)&api.SSL_CTX_new, "SSL_CTX_new", (void**)&api.SSL_CTX_free, "SSL_CTX_free",
                       (void**)&api.SSL_new, "SSL_new", (void**)&api.SSL_set_fd, "SSL_set_fd",
                       (void**)&api.SSL_connect, "SSL_connect", (void**)&api.SSL_free, "SSL_free",
                       (void**)nullptr))
    return false;
  SSL_CTX* cctx = api.SSL_CTX_new(api.TLS_client_method());
  auto t3 = std::chrono::steady_clock::now();
  PlSocket s = PlSockTcp();
  bool ok = PlSockConnect(s, PlHtonl(0x7f000001), port);
  SSL* ssl = ok ? api.SSL_new(cctx) : nullptr;
  ok = ssl && api.SSL_set_fd(ssl, (int)s) && api.SSL_connect(ssl) == 1;
  auto t4 = std::chrono::steady_clock::now();
  if (ssl) api.SSL_free(ssl);
  PlSockClose(s);
  api.SSL_CTX_free(cctx);
  DllFree(h);
  srv.StopListening();
  std::remove(cert.c_str());
  std::remove(key.c_str());
  if (!ok) return false;
  printf("tls: bind+init %.2f ms, server context %.2f ms, first handshake %.2f ms, total %.2f ms\n",
         Ms(t0, t1), Ms(t1, t2), Ms(t3, t4), Ms(t0, t2) + Ms(t3, t4));
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir = argc > 1 ? argv[1] : "/tmp";
  PlNetStartup();
  try {
    BenchSqlite(dir);
  } catch (const char* text) {
    printf("sqlite: %s\n", text);
  }
  try {
    if (!BenchTls(dir)) printf("tls: could not run\n");
  } catch (int code) {
    printf("tls: error %d\n", code);
  }
  PlNetCleanup();
  return 0;
}
