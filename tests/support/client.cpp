// The client side of HTTP for the tests: raw connections to 127.0.0.1, whole
// exchanges, reply parsing, and starting a server on a free port.
#include <cstdlib>
#include <random>

#include "cerror.h"
#include "chttpserver.h"
#include "test_support.h"

namespace testsup {

namespace {
// PHP pages may take a while to start in the sanitized builds.
const int kPageTimeoutSec = 30;
}  // namespace

std::string Reply::Header(const std::string& name) const {
  std::string head = "\r\n" + Head, key = "\r\n" + name + ": ";
  size_t p = head.find(key);
  if (p == std::string::npos) return "";
  p += key.size();
  return head.substr(p, head.find("\r\n", p) - p);
}

Reply ParseReply(const std::string& raw) {
  Reply r;
  r.Raw = raw;
  size_t eol = raw.find("\r\n"), blank = raw.find("\r\n\r\n");
  r.StatusLine = raw.substr(0, eol);
  if (r.StatusLine.compare(0, 9, "HTTP/1.1 ") == 0) r.Status = atoi(r.StatusLine.c_str() + 9);
  if (blank != std::string::npos) r.Head = raw.substr(eol + 2, blank - eol), r.Body = raw.substr(blank + 4);
  return r;
}

Conn::Conn(unsigned short port) : Sock(PlSockTcp()) {
  if (Sock != PL_NO_SOCKET && !PlSockConnect(Sock, PlHtonl(kLoopback), port)) {
    PlSockClose(Sock);
    Sock = PL_NO_SOCKET;
  }
}

bool Conn::Send(const std::string& data) {
  size_t done = 0;
  for (int n = 1; Sock != PL_NO_SOCKET && done < data.size() && n > 0;)
    if ((n = PlSockSend(Sock, data.data() + done, (int)(data.size() - done))) > 0) done += (size_t)n;
  return Sock != PL_NO_SOCKET && done == data.size();
}

std::string Conn::ReadAll(int timeoutSec) {
  std::string got;
  char buf[65536];
  for (int n; Sock != PL_NO_SOCKET && PlSockWaitReadable(Sock, timeoutSec) == 1 &&
              (n = PlSockRecv(Sock, buf, sizeof buf)) > 0;)
    got.append(buf, (size_t)n);
  return got;
}

std::string Exchange(unsigned short port, const std::string& request, bool halfClose, int timeoutSec) {
  Conn c(port);
  c.Send(request);
  if (halfClose) c.HalfClose();
  return c.ReadAll(timeoutSec);
}

Reply Get(unsigned short port, const std::string& target, const std::string& extraHeaders) {
  return ParseReply(Exchange(port, "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + extraHeaders + "\r\n",
                             false, kPageTimeoutSec));
}

Reply Post(unsigned short port, const std::string& target, const std::string& type, const std::string& body) {
  return ParseReply(Exchange(port,
                             "POST " + target + " HTTP/1.1\r\nHost: localhost\r\nContent-Type: " + type +
                                 "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body,
                             false, kPageTimeoutSec));
}

unsigned short StartOnFreePort(CHttpServer& srv) {
  srv.SetListeningAddr(kLoopback);
  std::random_device rd;
  for (int attempt = 0; attempt < 200; ++attempt) {
    srv.SetPortA((unsigned short)(20000 + rd() % 30000));
    try {
      srv.Start();
      return srv.GetPort();
    } catch (int code) {
      if (code != CERR_HTTPSRV_LISTEN) throw;
    }
  }
  return 0;
}

}  // namespace testsup
