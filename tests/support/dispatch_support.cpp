#include "dispatch_support.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "pl_net.h"

namespace fs = std::filesystem;

namespace dispatch_test {

ScratchDir::ScratchDir() {
  static std::atomic<int> counter{0};
  std::random_device rd;
  fs::path base = fs::temp_directory_path();
  for (;;) {
    fs::path p = base / ("lumetta-dispatch-" + std::to_string(rd()) + "-" + std::to_string(counter++));
    if (fs::create_directory(p)) {
      Root = p.string();
      break;
    }
  }
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  fs::remove_all(Root, ec);
}

std::string ScratchDir::Write(const std::string& rel, const std::string& content) const {
  fs::path p = fs::path(Root) / rel;
  fs::create_directories(p.parent_path());
  std::ofstream out(p, std::ios::binary);
  out.write(content.data(), (std::streamsize)content.size());
  return p.string();
}

std::string ScratchDir::MakeDir(const std::string& rel) const {
  fs::path p = fs::path(Root) / rel;
  fs::create_directories(p);
  return p.string();
}

bool Reply::HasHeader(const std::string& line) const {
  return Head.find("\r\n" + line + "\r\n") != std::string::npos ||
         Head.compare(0, line.size() + 2, line + "\r\n") == 0;
}

std::string Reply::Header(const std::string& name) const {
  std::istringstream in(Head);
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.compare(0, name.size() + 2, name + ": ") == 0) return line.substr(name.size() + 2);
  }
  return std::string();
}

Reply ParseReply(const std::string& raw) {
  Reply r;
  r.Raw = raw;
  size_t eol = raw.find("\r\n");
  r.StatusLine = raw.substr(0, eol);
  if (r.StatusLine.compare(0, 9, "HTTP/1.1 ") == 0) r.Status = atoi(r.StatusLine.c_str() + 9);
  if (eol == std::string::npos) return r;
  size_t blank = raw.find("\r\n\r\n", eol);
  if (blank == std::string::npos) {
    r.Head = raw.substr(eol + 2);
    return r;
  }
  r.Head = raw.substr(eol + 2, blank + 2 - (eol + 2));
  r.Body = raw.substr(blank + 4);
  return r;
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

std::string Exchange(unsigned short port, const std::string& request, bool halfClose,
                     int timeoutSec) {
  PlSocket s = PlSockTcp();
  if (s == PL_NO_SOCKET) return std::string();
  std::string got;
  if (PlSockConnect(s, PlHtonl(0x7f000001), port)) {
    size_t sent = 0;
    while (sent < request.size()) {
      int n = PlSockSend(s, request.data() + sent, (int)(request.size() - sent));
      if (n <= 0) break;
      sent += (size_t)n;
    }
    if (halfClose) PlSockShutdownSend(s);
    char buf[8192];
    while (PlSockWaitReadable(s, timeoutSec) == 1) {
      int n = PlSockRecv(s, buf, sizeof buf);
      if (n <= 0) break;
      got.append(buf, (size_t)n);
    }
  }
  PlSockClose(s);
  return got;
}

Reply Get(unsigned short port, const std::string& target, const std::string& extraHeaders) {
  return ParseReply(
      Exchange(port, "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + extraHeaders + "\r\n"));
}

TestServer::TestServer(const std::string& home) {
  PlNetStartup();
  Log = new CLog;
  Log->Path = LogDir.Path().c_str();
  Log->FileNamePref = "srv";
  Log->LogLevel = 3;
  Log->New();
  Server = new CHttpServer(Log);
  Server->ServerName = "LumettaTest";
  Server->SetHomeDir(home.c_str());
}

TestServer::~TestServer() {
  delete Server;
  delete Log;
}

void TestServer::Start() {
  Server->SetListeningAddr(0x7f000001);
  std::random_device rd;
  for (int attempt = 0; attempt < 200; attempt++) {
    unsigned short port = (unsigned short)(20000 + rd() % 30000);
    if (!Server->SetPortA(port)) continue;
    if (Server->StartListening()) {
      ListenPort = port;
      break;
    }
  }
  ASSERT_NE(ListenPort, 0) << "no free port";
  ASSERT_TRUE(Server->StartAccepting());
}

std::string TestServer::LogText() const {
  std::string all;
  for (const auto& e : fs::directory_iterator(LogDir.Path())) {
    std::ifstream in(e.path(), std::ios::binary);
    all += std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }
  return all;
}

bool TestServer::WaitLog(const std::string& text, int timeoutMs) const {
  auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (LogText().find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

void TestServer::AddCommonMimeTypes() {
  static const char* const kTypes[][2] = {
      {"text/html", "html"}, {"text/css", "css"},  {"application/javascript", "js"},
      {"image/png", "png"},  {"image/svg+xml", "svg"}, {"application/json", "json"},
      {"text/plain", "txt"}};
  for (const auto& t : kTypes) {
    CMime* mime = Server->MimeList->Add();
    mime->Type = t[0];
    mime->AddExt(t[1]);
  }
}

}  // namespace dispatch_test
