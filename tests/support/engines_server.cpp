#include "engines_server.h"

#include <cctype>
#include <random>

#include "cgiwrapper.h"
#include "chttpserver.h"
#include "pl_net.h"
#include "progdir.h"
#include "runwrapper.h"

static bool EqualsIC(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); i++)
    if (tolower((unsigned char)a[i]) != tolower((unsigned char)b[i])) return false;
  return true;
}

std::string EnginesReply::Header(const std::string& name) const {
  for (const std::string& h : Heads) {
    size_t colon = h.find(':');
    if (colon == std::string::npos || !EqualsIC(h.substr(0, colon), name)) continue;
    size_t v = h.find_first_not_of(' ', colon + 1);
    return v == std::string::npos ? std::string() : h.substr(v);
  }
  return std::string();
}

static void SplitReply(EnginesReply& r) {
  size_t end = r.Raw.find("\r\n\r\n");
  std::string head = r.Raw.substr(0, end);
  r.Body = end == std::string::npos ? std::string() : r.Raw.substr(end + 4);
  size_t pos = 0;
  bool first = true;
  while (pos <= head.size()) {
    size_t eol = head.find("\r\n", pos);
    std::string line = head.substr(pos, eol == std::string::npos ? std::string::npos : eol - pos);
    if (first)
      r.StatusLine = line;
    else
      r.Heads.push_back(line);
    first = false;
    if (eol == std::string::npos) break;
    pos = eol + 2;
  }
}

EnginesReply EnginesHttp(unsigned short port, const std::string& request) {
  EnginesReply r;
  PlSocket s = PlSockTcp();
  if (s == PL_NO_SOCKET) return r;
  if (PlSockConnect(s, PlHtonl(0x7F000001), port)) {
    PlSockSend(s, request.data(), (int)request.size());
    char buf[8192];
    int n;
    while (PlSockWaitReadable(s, 30) == 1 && (n = PlSockRecv(s, buf, sizeof buf)) > 0) r.Raw.append(buf, (size_t)n);
  }
  PlSockClose(s);
  SplitReply(r);
  return r;
}

EnginesReply EnginesGet(unsigned short port, const std::string& target, const std::string& heads) {
  return EnginesHttp(port, "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + heads + "\r\n");
}

EnginesReply EnginesPost(unsigned short port, const std::string& target, const std::string& type,
                         const std::string& body, const std::string& heads) {
  return EnginesHttp(port, "POST " + target + " HTTP/1.1\r\nHost: localhost\r\nContent-Type: " + type +
                               "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + heads + "\r\n" +
                               body);
}

EnginesServer::EnginesServer(const std::string& homeDir, bool withPhp, CLog* log)
    : Server(log ? new CHttpServer(log) : new CHttpServer) {
  Server->SetListeningAddr(0x7F000001);
  Server->EngsAdd("/run.ebd", RunWrapper, 1);
  Server->OnCgi = CgiWrapper;
  Server->SetHomeDir(homeDir.c_str());
  Server->CacheExpire = 0;
  Server->ServerName = "Lumetta Server";
  CStr path, args;
  if (withPhp && FindPhpInterpreter(ProgDir, path, args)) Server->Vadd("php", path.Str, args.Str, 8, 1);
  Server->DefDocs.Add("index.htm");
  Server->DefDocs.Add("index.html");
  Server->DefDocs.Add("index.php");
}

EnginesServer::~EnginesServer() { delete Server; }

bool EnginesServer::Start() {
  std::random_device rd;
  unsigned short port = (unsigned short)(20000 + rd() % 30000);
  for (int tries = 0; tries < 200; tries++, port++) {
    Server->SetPortA(port);
    if (Server->StartListening()) return Server->StartAccepting();
  }
  return false;
}

unsigned short EnginesServer::Port() const { return Server->GetPort(); }
