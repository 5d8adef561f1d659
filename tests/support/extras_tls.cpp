#include "extras_tls.h"

#include <cstdio>
#include <cstdlib>
#include <random>

#include "cerror.h"

int ExtrasRun(const std::string& command, std::string* output) {
  FILE* p = popen(command.c_str(), "r");
  if (!p) return -1;
  std::string all;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) all.append(buf, n);
  int status = pclose(p);
  if (output) *output = all;
  return status;
}

bool ExtrasMakeCert(const std::string& certPath, const std::string& keyPath) {
  std::string cmd = "openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost"
                    " -addext subjectAltName=IP:127.0.0.1,DNS:localhost -keyout '" +
                    keyPath + "' -out '" + certPath + "' >/dev/null 2>&1";
  return ExtrasRun(cmd) == 0;
}

bool ExtrasMakeKey(const std::string& keyPath) {
  return ExtrasRun("openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out '" + keyPath +
                   "' >/dev/null 2>&1") == 0;
}

unsigned short ExtrasStartServer(CHttpServer& srv) {
  srv.SetListeningAddr(0x7f000001);
  std::random_device rd;
  for (int attempt = 0; attempt < 200; ++attempt) {
    unsigned short port = (unsigned short)(20000 + rd() % 30000);
    if (!srv.SetPortA(port)) continue;
    try {
      srv.Start();
      return port;
    } catch (int code) {
      if (code != CERR_HTTPSRV_LISTEN) throw;
    }
  }
  return 0;
}
