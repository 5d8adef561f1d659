// Real servers for the tests, bare or set up as the player sets up its own,
// with the canned replies they give and small engines to route to.
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cgi_pool.h"
#include "cgiwrapper.h"
#include "php_options.h"
#include "phppool.h"
#include "pl_dl.h"
#include "progdir.h"
#include "runwrapper.h"
#include "test_servers.h"

namespace fs = std::filesystem;

namespace testsup {

TestServer::TestServer(const std::string& home, const ServerSetup& setup) : Setup(setup) {
  PlNetStartup();
  Log.Path = LogDir.Path().c_str();
  Log.FileNamePref = "srv";
  Log.LogLevel = 3;
  Log.New();
  Server = new CHttpServer(&Log);
  Server->ServerName = "LumettaTest";
  Server->SetHomeDir(home.c_str());
  if (Setup.AsPlayer) SetUpAsPlayer();
}

void TestServer::SetUpAsPlayer() {
  Server->EngsAdd("/run.ebd", RunWrapper, HTTPS_OBJF_ENABLED);
  Server->OnCgi = CgiWrapper;
  Server->CacheExpire = 0;
  Server->ServerName = "Lumetta Server";
}

// Routes "php" to the interpreter the gateway finds, through the pool when
// there is one; false when the pool's workers do not start.
bool TestServer::RoutePhp() {
  CStr path, args;
  if (!Setup.Php || !FindPhpInterpreter(ProgDir, path, args)) return true;
  __https_obj* php = Server->Vadd("php", path.Str, args.Str, HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED);
  PhpPool* pool = Setup.Pool;
  if (pool && pool->IsRunning()) {
    pool->TimeOutSec = CgiTimeOut;  // no request runs on it now
    CgiUsePool(php, pool);
  } else if (pool && !CgiStartPool(*pool, php, Setup.Workers)) {
    return false;
  }
  return true;
}

bool TestServer::Start() {
  if (!RoutePhp()) {
    ADD_FAILURE() << "the PHP pool did not start";
    return false;
  }
  try {
    ListenPort = StartOnFreePort(*Server);
  } catch (int code) {
    ADD_FAILURE() << "the server did not start: error " << code;
    return false;
  }
  if (!ListenPort) ADD_FAILURE() << "no free port";
  return ListenPort != 0;
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

namespace {
void SendText(HTTPS_CLIENT* client, const std::string& out) {
  if (client->CHttpServerEx->SendHeader(client, (int)out.size(), "text/plain", nullptr, 0, 0))
    client->Socket->Write(out.data(), (int)out.size());
}
}  // namespace

bool BodySizeEngine(void*, void* c) {
  HTTPS_CLIENT* client = (HTTPS_CLIENT*)c;
  SendText(client, "size " + std::to_string(client->Cgi ? client->Cgi->ArgsRaw.Len : -1));
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
  SendText(client, out);
  return true;
}

std::string PhpCommandLine() {
  CStr path, args;
  if (!FindPhpInterpreter(CStr("/nonexistent"), path, args)) return "";
  CStr cmd;
  cmd.Printf(args.c_str(), "");  // the argument text is a format with '%' doubled
  return "\"" + std::string(path.c_str()) + "\" " + cmd.c_str();
}

void AddPhpOptions(CStrList& env) {
  CStr path, args;
  if (FindPhpInterpreter(CStr("/nonexistent"), path, args)) PhpAddOptionsEnvironment(path, env);
}

std::string PathSeenByPhp(const std::string& path) {
  if (!TestUnderWine()) return path;
  // wine's own call for the host's name of a Windows path; its result lives
  // on the process heap, and a test may leave those few bytes there.
  typedef char* (*UnixNameFunc)(const wchar_t*);
  void* kernel = PlDlOpen("kernel32.dll");
  auto unixName = reinterpret_cast<UnixNameFunc>(PlDlSymbol(kernel, "wine_get_unix_file_name"));
  const char* name = unixName ? unixName(std::wstring(path.begin(), path.end()).c_str()) : nullptr;
  PlDlClose(kernel);
  if (!name) {  // wine names only files whose directory exists: name that
    size_t cut = path.find_last_of("/\\");
    if (!unixName || cut == std::string::npos || cut < 3) return path;
    return PathSeenByPhp(path.substr(0, cut)) + "/" + path.substr(cut + 1);
  }
  // wine names the file through its drive's link in the prefix; the relay
  // hands PHP the link resolved: C: is the prefix's drive_c, Z: the root.
  std::string host = name;
  size_t at = host.find("/dosdevices/");
  if (at == std::string::npos || host.size() < at + 14 || host[at + 13] != ':') return host;
  std::string rest = host.substr(at + 14);
  if (host[at + 12] == 'c') return host.substr(0, at) + "/drive_c" + rest;
  if (host[at + 12] == 'z') return rest.empty() ? "/" : rest;
  return host;
}

std::string VariableSeenByPhp(const std::string& entry) {
  if (!TestUnderWine()) return entry;
  size_t eq = entry.find('=');
  std::string name = entry.substr(0, eq), value = eq == std::string::npos ? "" : entry.substr(eq + 1);
  if (name == "PHP_INI_SCAN_DIR") {
    std::string list, dir;
    std::istringstream dirs(value);
    for (bool first = true; std::getline(dirs, dir, ';'); first = false)
      list += (first ? "" : ":") + (dir.empty() ? dir : PathSeenByPhp(dir));
    return name + "=" + list + (!value.empty() && value.back() == ';' ? ":" : "");
  }
  for (const char* path : {"SCRIPT_FILENAME", "PATH_TRANSLATED", "DOCUMENT_ROOT", "PHPRC"})
    if (name == path && !value.empty()) return name + "=" + PathSeenByPhp(value);
  return entry;
}

std::string CopyInterpreter(const std::string& program, const std::string& dir) {
  namespace fs = std::filesystem;
  fs::path from(program);
  if (TestOnWindows())
    for (const auto& f : fs::directory_iterator(from.parent_path()))
      if (f.is_regular_file()) fs::copy_file(f.path(), fs::path(dir) / f.path().filename());
  std::string copy = (fs::path(dir) / from.filename()).string();
  if (!TestOnWindows()) {
    fs::copy_file(from, copy);
    fs::permissions(copy, fs::perms::owner_all);
  }
  return copy;
}

}  // namespace testsup
