#include "server_client.h"

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "pl_fs.h"
#include "pl_net.h"
#include "pl_thread.h"

namespace {
const unsigned kLoopback = 0x7f000001;  // host order

unsigned short FirstPortToTry() {
  // Spread concurrent test programs over the range; each server closes
  // first, so a port stays in TIME_WAIT for a while after use.
  static std::atomic<unsigned> next{(unsigned)(20000 + (PlMonotonicMs() * 7919) % 30000)};
  return (unsigned short)next.fetch_add(1);
}
}  // namespace

unsigned short ServerTestStart(CHttpServer& srv) {
  PlNetStartup();
  srv.SetListeningAddr(kLoopback);
  for (int attempt = 0; attempt < 500; ++attempt) {
    unsigned short port = FirstPortToTry();
    if (port < 1024) continue;
    srv.SetPortA(port);
    try {
      srv.Start();
      return port;
    } catch (int code) {
      if (code != CERR_HTTPSRV_LISTEN) throw;
    }
  }
  return 0;
}

TestConnection::TestConnection(unsigned short port) : Sock(PlSockTcp()) {
  if (Sock != PL_NO_SOCKET && !PlSockConnect(Sock, PlHtonl(kLoopback), port)) Close();
}

TestConnection::~TestConnection() { Close(); }

void TestConnection::Close() {
  if (Sock != PL_NO_SOCKET) PlSockClose(Sock);
  Sock = PL_NO_SOCKET;
}

bool TestConnection::Send(const std::string& data) {
  size_t done = 0;
  while (done < data.size()) {
    int n = PlSockSend(Sock, data.data() + done, (int)(data.size() - done));
    if (n <= 0) return false;
    done += (size_t)n;
  }
  return true;
}

std::string TestConnection::ReadAll(int timeoutMs) {
  std::string out;
  char buf[65536];
  for (;;) {
    int ready = PlSockWaitReadable(Sock, (timeoutMs + 999) / 1000);
    if (ready <= 0) break;
    int n = PlSockRecv(Sock, buf, sizeof buf);
    if (n <= 0) break;
    out.append(buf, (size_t)n);
  }
  return out;
}

bool TestConnection::WaitClosed(int timeoutMs) {
  char buf[4096];
  uint64_t end = PlMonotonicMs() + (uint64_t)timeoutMs;
  while (PlMonotonicMs() < end) {
    if (PlSockWaitReadable(Sock, 1) <= 0) continue;
    if (PlSockRecv(Sock, buf, sizeof buf) <= 0) return true;
  }
  return false;
}

std::string HttpExchange(unsigned short port, const std::string& request, int timeoutMs) {
  TestConnection c(port);
  if (!c.Connected() || !c.Send(request)) return "<no connection>";
  return c.ReadAll(timeoutMs);
}

long long ParseHttpDate(const std::string& text) {
  static const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                        "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  char wday[4] = {0}, mon[4] = {0};
  int d, y, h, mi, s;
  if (text.size() != 29 ||
      sscanf(text.c_str(), "%3s, %2d %3s %4d %2d:%2d:%2d GMT", wday, &d, mon, &y, &h, &mi, &s) != 7)
    return -1;
  int m = -1;
  for (int i = 0; i < 12; ++i)
    if (std::string(mon) == kMonths[i]) m = i + 1;
  if (m < 0) return -1;
  // Days from the civil date (proleptic Gregorian).
  long long yy = y - (m <= 2);
  long long era = (yy >= 0 ? yy : yy - 399) / 400;
  long long yoe = yy - era * 400;
  long long doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  long long doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  long long days = era * 146097 + doe - 719468;
  return days * 86400 + h * 3600 + mi * 60 + s;
}

std::string HeaderValue(const std::string& reply, const std::string& name) {
  std::string key = "\r\n" + name + ": ";
  size_t p = reply.find(key);
  if (p == std::string::npos) return "";
  p += key.size();
  return reply.substr(p, reply.find("\r\n", p) - p);
}

TempDir::TempDir() {
  static std::atomic<int> counter{0};
  std::string tmp;
  PlTempDir(&tmp);
  std::ostringstream name;
  name << tmp << "/lumetta-srv-" << PlMonotonicMs() << "-" << counter.fetch_add(1) << "-"
       << (const void*)this;
  Dir = name.str();
  std::filesystem::create_directories(Dir);
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(Dir, ec);
}

std::string TempDir::Write(const std::string& name, const std::string& content) const {
  std::string path = Dir + "/" + name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}
