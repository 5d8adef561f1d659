// The helper child program's command line, file and scratch-directory
// helpers, and a real server with a raw client, for the engine and pipe tests.
#include "engines_helpers.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "cgi_pool.h"
#include "cgiwrapper.h"
#include "php_options.h"
#include "phppool.h"
#include "pl_net.h"
#include "progdir.h"
#include "runwrapper.h"
#include "portable.h"
#include "server_support.h"

std::string EnginesHelperPath() { return TestExeName(std::string(LUMETTA_HELPER_DIR) + "/pipe_helper"); }
std::string HelperCmd(const std::string& args) { return "\"" + EnginesHelperPath() + "\" " + args; }

std::string EnginesPoolHelperPath() { return std::string(LUMETTA_HELPER_DIR) + "/pool_helper"; }

std::string EnginesPhpCommandLine() {
  CStr path, args;
  if (!FindPhpInterpreter(CStr("/nonexistent"), path, args)) return "";
  CStr cmd;
  cmd.Printf(args.c_str(), "");  // the argument text is a format with '%' doubled
  return "\"" + std::string(path.c_str()) + "\" " + cmd.c_str();
}

void EnginesPhpOptions(CStrList& env) {
  CStr path, args;
  if (FindPhpInterpreter(CStr("/nonexistent"), path, args)) PhpAddOptionsEnvironment(path, env);
}

std::string EnginesPathSeenByPhp(const std::string& path) {
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
    return EnginesPathSeenByPhp(path.substr(0, cut)) + "/" + path.substr(cut + 1);
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

std::string EnginesVariableSeenByPhp(const std::string& entry) {
  if (!TestUnderWine()) return entry;
  size_t eq = entry.find('=');
  std::string name = entry.substr(0, eq), value = eq == std::string::npos ? "" : entry.substr(eq + 1);
  if (name == "PHP_INI_SCAN_DIR") {
    std::string list, dir;
    std::istringstream dirs(value);
    for (bool first = true; std::getline(dirs, dir, ';'); first = false)
      list += (first ? "" : ":") + (dir.empty() ? dir : EnginesPathSeenByPhp(dir));
    return name + "=" + list + (!value.empty() && value.back() == ';' ? ":" : "");
  }
  for (const char* path : {"SCRIPT_FILENAME", "PATH_TRANSLATED", "DOCUMENT_ROOT", "PHPRC"})
    if (name == path && !value.empty()) return name + "=" + EnginesPathSeenByPhp(value);
  return entry;
}

std::string EnginesCopyInterpreter(const std::string& program, const std::string& dir) {
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

std::string EnginesWithoutSystemVariables(const std::string& env) {
  if (!TestOnWindows()) return env;
  std::string kept, line;
  std::istringstream lines(env);
  while (std::getline(lines, line))
    if (line.rfind("WINE", 0) != 0 && line.rfind("SystemDrive=", 0) != 0 && line.rfind("SystemRoot=", 0) != 0)
      kept += line + "\n";
  return kept;
}

std::string EnginesReadFile(const std::string& path) {
  std::ostringstream out;
  out << std::ifstream(path, std::ios::binary).rdbuf();
  return out.str();
}


void EnginesWriteFile(const std::string& path, const std::string& data) {
  std::ofstream(path, std::ios::binary) << data;
}

EnginesTempDir::EnginesTempDir() : Path(srvtest::MakeTempDir("lumetta-eng-")) {}

EnginesTempDir::~EnginesTempDir() {
  std::error_code ec;
  if (!Path.empty()) std::filesystem::remove_all(Path, ec);
}

EnginesReply EnginesHttp(unsigned short port, const std::string& request) {
  EnginesReply r;
  PlSocket s = PlSockTcp();
  if (s != PL_NO_SOCKET && PlSockConnect(s, PlHtonl(0x7F000001), port)) {
    PlSockSend(s, request.data(), (int)request.size());
    char buf[8192];
    int n;
    while (PlSockWaitReadable(s, 30) == 1 && (n = PlSockRecv(s, buf, sizeof buf)) > 0) r.Raw.append(buf, (size_t)n);
  }
  if (s != PL_NO_SOCKET) PlSockClose(s);
  r.StatusLine = r.Raw.substr(0, r.Raw.find("\r\n"));
  size_t end = r.Raw.find("\r\n\r\n");
  if (end != std::string::npos) r.Body = r.Raw.substr(end + 4);
  return r;
}

EnginesReply EnginesGet(unsigned short port, const std::string& target, const std::string& heads) {
  return EnginesHttp(port, "GET " + target + " HTTP/1.1\r\nHost: localhost\r\n" + heads + "\r\n");
}

EnginesReply EnginesPost(unsigned short port, const std::string& target, const std::string& type,
                         const std::string& body) {
  return EnginesHttp(port, "POST " + target + " HTTP/1.1\r\nHost: localhost\r\nContent-Type: " + type +
                               "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

std::unique_ptr<CHttpServer> EnginesStartServer(const std::string& homeDir, bool withPhp, PhpPool* pool,
                                                int workers) {
  std::unique_ptr<CHttpServer> server(new CHttpServer);
  server->SetListeningAddr(0x7F000001);
  server->EngsAdd("/run.ebd", RunWrapper, HTTPS_OBJF_ENABLED);
  server->OnCgi = CgiWrapper;
  server->SetHomeDir(homeDir.c_str());
  server->CacheExpire = 0;
  server->ServerName = "Lumetta Server";
  CStr path, args;
  if (withPhp && FindPhpInterpreter(ProgDir, path, args)) {
    __https_obj* php = server->Vadd("php", path.Str, args.Str, HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED);
    if (pool && pool->IsRunning()) {
      pool->TimeOutSec = CgiTimeOut;  // no request runs on it now
      CgiUsePool(php, pool);
    } else if (pool && !CgiStartPool(*pool, php, workers)) {
      return nullptr;
    }
  }
  // The first free port from a random base.
  unsigned short port = (unsigned short)(20000 + std::random_device()() % 30000);
  for (int tries = 0; tries < 200; tries++, port++)
    if (server->SetPortA(port) && server->StartListening()) break;
  return server->StartAccepting() ? std::move(server) : nullptr;
}
