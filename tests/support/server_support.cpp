// Scratch directories, raw exchanges with a real CHttpServer, reply parsing
// and an argument-echoing engine, for the server tests.
#include "server_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <random>

#include "pl_net.h"
#include "pl_thread.h"

namespace fs = std::filesystem;

namespace srvtest {

const unsigned kLoopback = 0x7f000001;

std::string MakeTempDir(const std::string& prefix) {
  static std::atomic<int> counter{0};
  std::random_device rd;
  fs::path p;
  do p = fs::temp_directory_path() / (prefix + std::to_string(rd()) + "-" + std::to_string(counter++));
  while (!fs::create_directory(p));
  // With "/" throughout: Windows takes it too, and paths joined with "/" by
  // the tests stay in one form (and can travel in a URL unchanged).
  return p.generic_string();
}

ScratchDir::ScratchDir() : Root(MakeTempDir("lumetta-srv-")) {}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  fs::remove_all(Root, ec);
}

std::string ScratchDir::Write(const std::string& rel, const std::string& content) const {
  fs::path p = fs::path(Root) / rel;
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary).write(content.data(), (std::streamsize)content.size());
  return p.string();
}

std::string ScratchDir::MakeDir(const std::string& rel) const {
  fs::create_directories(fs::path(Root) / rel);
  return Join(rel);
}

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
  return ParseReply(
      Exchange(port, "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + extraHeaders + "\r\n"));
}

std::string AuthReply(const std::string& realm) {
  static const std::string body =
      "<html>\n<head>\n  <title>401 Authorization Required</title>\n</head>\n<body>\n"
      "  <h1>Authorization Required</h1>\n  <p>This server could not verify that you\n"
      "  are authorized to access the document\n  requested.  Either you supplied the wrong\n"
      "  credentials (e.g., bad password), or your\n  browser doesn't understand how to supply\n"
      "  the credentials required.</p>\n  <hr>\n</body></html>\n";
  return "HTTP/1.1 401 Authorization Required\r\nServer: LumettaTest\r\nWWW-Authenticate: Basic "
         "realm=\"" + realm + "\"\r\nContent-type: text/html\r\nConnection: close\r\n"
         "Content-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

std::string MovedReply(const std::string& url) {
  std::string body =
      "<head><title>Document Moved</title></head><body><h1>Object Moved</h1>This document may "
      "be found <a HREF=\"" + url + "\">here</a></body>";
  return "HTTP/1.1 302 Object Moved\r\nLocation: " + url +
         "\r\nServer: LumettaTest\r\nContent-type: text/html\r\nConnection: close\r\n"
         "Content-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

long ProcStatusKb(const std::string& field) {
  std::ifstream in("/proc/self/status");
  for (std::string line; std::getline(in, line);)
    if (line.compare(0, field.size() + 1, field + ":") == 0) return atol(line.c_str() + field.size() + 1);
  return -1;
}

bool BodySizeEngine(void*, void* c) {
  HTTPS_CLIENT* client = (HTTPS_CLIENT*)c;
  std::string out = "size " + std::to_string(client->Cgi ? client->Cgi->ArgsRaw.Len : -1);
  if (client->CHttpServerEx->SendHeader(client, (int)out.size(), "text/plain", nullptr, 0, 0))
    client->Socket->Write(out.data(), (int)out.size());
  return true;
}

bool EchoArgsEngine(void*, void* c) {
  HTTPS_CLIENT* client = (HTTPS_CLIENT*)c;
  CCgi* cgi = client->Cgi;
  std::string out = "args " + std::to_string(cgi ? cgi->ArgsCount() : 0) + "\n";
  for (CGI_ARG* a = cgi ? cgi->Args : nullptr; a; a = a->Next) {
    out += std::string(a->Label.c_str()) + "\t" + std::to_string(a->Val.Len) + "\t";
    if (a->Val.Len) out.append(a->Val.Str, (size_t)a->Val.Len);
    out += "\n";
  }
  if (client->CHttpServerEx->SendHeader(client, (int)out.size(), "text/plain", nullptr, 0, 0))
    client->Socket->Write(out.data(), (int)out.size());
  return true;
}

TestServer::TestServer(const std::string& home) {
  PlNetStartup();
  Log.Path = LogDir.Path().c_str();
  Log.FileNamePref = "srv";
  Log.LogLevel = 3;
  Log.New();
  Server = new CHttpServer(&Log);
  Server->ServerName = "LumettaTest";
  Server->SetHomeDir(home.c_str());
}

void TestServer::Start() {
  Server->SetListeningAddr(kLoopback);
  std::random_device rd;
  for (int attempt = 0; attempt < 200 && !ListenPort; attempt++) {
    unsigned short port = (unsigned short)(20000 + rd() % 30000);
    if (Server->SetPortA(port) && Server->StartListening()) ListenPort = port;
  }
  ASSERT_NE(ListenPort, 0) << "no free port";
  ASSERT_TRUE(Server->StartAccepting());
}

std::string TestServer::LogText() const {
  std::string all;
  for (const auto& e : fs::directory_iterator(LogDir.Path())) {
    std::ifstream in(e.path());  // text mode: the platform's line ends read as "\n"
    all += std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return all;
}

bool TestServer::WaitLog(const std::string& text, int timeoutMs) const {
  for (uint64_t end = PlMonotonicMs() + (uint64_t)timeoutMs; LogText().find(text) == std::string::npos;
       PlSleepMs(20))
    if (PlMonotonicMs() > end) return false;
  return true;
}

void TestServer::AddCommonMimeTypes() {
  for (std::string t : {"text/html html", "text/css css", "application/javascript js", "image/png png",
                        "image/svg+xml svg", "application/json json", "text/plain txt"}) {
    CMime* mime = Server->MimeList->Add();
    mime->Type = t.substr(0, t.find(' ')).c_str();
    mime->AddExt(t.substr(t.find(' ') + 1).c_str());
  }
}

}  // namespace srvtest
