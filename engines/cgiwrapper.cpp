#include "cgiwrapper.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "chttpserver.h"
#include "clog.h"
#include "cpipestream.h"
#include "pl_fs.h"

unsigned CgiTimeOut = 600;

namespace {

const int kChunk = 4096;

// Options every php-cgi run gets. The player talks to the interpreter
// directly, not through a redirecting web server, so the REDIRECT_STATUS
// guard is switched off here rather than by faking the variable; and the
// script is found through SCRIPT_FILENAME, which needs fix_pathinfo on (off,
// php-cgi would read the empty PATH_TRANSLATED and find nothing).
const char kPhpOptions[] = "-d cgi.force_redirect=0 -d cgi.fix_pathinfo=1";
const char kSystemPhpLimits[] = " -d post_max_size=64M -d upload_max_filesize=64M";

void AddVar(CStrList& env, const char* nameEq, const CStr& value) {
  CStr entry(nameEq);
  entry.Cat(value);
  env.Add(entry);
}

void AddVar(CStrList& env, const char* nameEq, int value) {
  CStr entry(nameEq);
  entry.CatInt(value);
  env.Add(entry);
}

// Copies one of the few variables of our own environment that the
// interpreter may need, and only when it is set.
void AddInherited(CStrList& env, const char* name) {
  const char* value = getenv(name);
  if (!value) return;
  CStr entry(name);
  entry.CatChar('=');
  entry.Cat(value);
  env.Add(entry);
}

// The variables in a fixed order; empty ones stay as "NAME=" entries.
void BuildEnvironment(CHttpServer* server, HTTPS_CLIENT* c, const CStr& script, CStrList& env) {
  bool post = c->Method == CHttpServer::HTTPS_MET_POST;
  CStr port;
  port.SetInt(server->GetPort());
  CStr remote = CLog::FormatIP(c->Ip);

  AddInherited(env, "COMSPEC");
  if (post) {
    AddVar(env, "CONTENT_LENGTH=", c->PostLen);
    CStr type = c->ContentType;
    if (!c->Boundary.IsEmpty()) {
      type.Cat("; boundary=-");
      type.Cat(c->Boundary);
    }
    AddVar(env, "CONTENT_TYPE=", type);
  }
  AddVar(env, "QUERY_STRING=", c->QueryStr);
  AddVar(env, "DOCUMENT_ROOT=", server->GetHomeDir());
  env.Add("GATEWAY_INTERFACE=CGI/1.1");
  AddVar(env, "HTTP_ACCEPT=", c->InAccept);
  AddVar(env, "HTTP_ACCEPT_LANGUAGE=", c->AcceptLanguage);
  env.Add("HTTP_ACCEPT_ENCODING=");
  AddVar(env, "HTTP_CONNECTION=", c->InConnection);
  AddVar(env, "HTTP_COOKIE=", c->InCookies);
  AddVar(env, "HTTP_HOST=", c->Host);
  AddVar(env, "HTTP_REFERER=", c->Referer);
  env.Add("HTTPS=");
  env.Add("HTTP_UA_CPU=x86");
  AddVar(env, "HTTP_USER_AGENT=", c->InUserAgent);
  AddInherited(env, "PATH");
  env.Add("PATH_INFO=");
  env.Add("PATH_TRANSLATED=");
  AddVar(env, "REMOTE_ADDR=", remote);
  AddVar(env, "REMOTE_HOST=", remote);
  AddVar(env, "REMOTE_PORT=", (int)c->Port);
  AddVar(env, "REQUEST_METHOD=", CStr(server->GetMethodStr(c->Method)));
  AddVar(env, "REQUEST_URI=", c->Arg);
  AddVar(env, "SCRIPT_FILENAME=", script);
  AddVar(env, "SCRIPT_NAME=", c->Arg);
  AddVar(env, "SERVER_ADDR=", CLog::FormatIP(c->LocalIp));
  env.Add("SERVER_NAME=localhost");
  AddVar(env, "SERVER_PORT=", port);
  CStr signature("SERVER_SIGNATURE=<ADDRESS>Lumetta/1.0.3 Server at localhost Port ");
  signature.Cat(port);
  signature.Cat("</ADDRESS>");
  env.Add(signature);
  env.Add("SERVER_PROTOCOL=HTTP/1.1");
  env.Add("SERVER_SOFTWARE=Lumetta/1.0.3 (Windows)");
  AddInherited(env, "SystemDrive");
  AddInherited(env, "SystemRoot");
  AddInherited(env, "TEMP");
  AddInherited(env, "TMP");
}

bool StartsWithIC(const char* text, int len, const char* prefix) {
  int n = (int)strlen(prefix);
  if (len < n) return false;
  for (int i = 0; i < n; i++)
    if (tolower((unsigned char)text[i]) != tolower((unsigned char)prefix[i])) return false;
  return true;
}

// The interpreter's first piece of output decides the status line: a leading
// "Status:" line becomes "HTTP/1.1 <text>", anything else gets 200 OK. Our
// Server and Date lines follow; the interpreter's own headers come after.
void SendFirstChunk(CHttpServer* server, CSocket* sock, const char* buf, int len) {
  const char* rest = buf;
  const char* end = buf + len;
  bool statusSent = false;
  if (StartsWithIC(buf, len, "Status:")) {
    const void* eol = memchr(buf, '\r', (size_t)len);
    if (!eol) eol = memchr(buf, '\n', (size_t)len);
    CStr line("HTTP/1.1 ");
    if (eol) {
      // One character after the colon is always skipped, blank or not.
      const char* lineEnd = static_cast<const char*>(eol);
      if (lineEnd > buf + 8) line.Cat(buf + 8, (int)(lineEnd - (buf + 8)));
      rest = lineEnd + 1;
      if (rest < end && (*rest == '\n' || *rest == '\r')) rest++;
    } else {
      // A status line cut off by the chunk's end is dropped with the chunk;
      // long-standing behaviour that pages rely on not at all, kept as is.
      line.Cat("200 OK");
      rest = end;
    }
    line.Cat("\r\n");
    sock->Puts(line);
    statusSent = true;
  }
  if (!statusSent) sock->Puts("HTTP/1.1 200 OK\r\n");
  CStr head("Server: ");
  head.Cat(server->ServerName);
  head.Cat("\r\nDate: ");
  head.Cat(CHttpServer::Time(nullptr));
  head.Cat("\r\n");
  sock->Puts(head);
  if (rest < end) sock->Write(rest, (int)(end - rest));
}

// The first piece is read until it holds a line end, fills the buffer or
// the output ends: php-cgi writes its "Status: ..." text and the CR LF after
// it separately, and a piece cut between them would lose the status.
int ReadFirstChunk(CPipeStream& pipe, char* buf) {
  int len = 0;
  while (len < kChunk) {
    unsigned n = pipe.Read(buf + len, (unsigned)(kChunk - len));
    if (n == 0) break;
    bool lineEnd = memchr(buf + len, '\r', n) || memchr(buf + len, '\n', n);
    len += (int)n;
    if (lineEnd) break;
  }
  return len;
}

void Relay(CHttpServer* server, CSocket* sock, CPipeStream& pipe) {
  char buf[kChunk];
  int first = ReadFirstChunk(pipe, buf);
  if (first == 0) return;  // nothing written: nothing is sent
  SendFirstChunk(server, sock, buf, first);
  unsigned n;
  while ((n = pipe.Read(buf, sizeof buf)) > 0) sock->Write(buf, (int)n);
}

// True when path lies inside dir once links are resolved: the dispatcher
// has checked the request path as text, this keeps a link inside the home
// directory from running a script that lies outside it.
bool InsideDirectory(const CStr& path, const CStr& dir) {
  std::string realPath, realDir;
  if (!PlRealPath(path.c_str(), &realPath) || !PlRealPath(dir.c_str(), &realDir)) return false;
  if (!realDir.empty() && realDir.back() != PL_PATH_SEP) realDir += PL_PATH_SEP;
  return realPath.compare(0, realDir.size(), realDir) == 0;
}

// A program path with blanks is quoted: Windows finds such a program
// unquoted by trying the blanks in turn, our command-line splitter does not.
CStr ProgramWord(const CStr& path) {
  if (path.FindChar(' ') < 0 || path.First() == '"') return path;
  CStr q("\"");
  q.Cat(path);
  q.CatChar('"');
  return q;
}

CStr CommandLine(__https_obj* obj, const CStr& script) {
  if (obj->Type & HTTPS_OBJ_VFILE) return obj->Path;
  CStr format = ProgramWord(obj->Path);
  format.CatChar(' ');
  format.Cat(obj->Args);
  CStr cmd;
  cmd.Printf(format.c_str(), script.c_str());
  return cmd;
}

}  // namespace

bool CgiWrapper(void* objPtr, void* clientPtr) {
  __https_obj* obj = static_cast<__https_obj*>(objPtr);
  HTTPS_CLIENT* client = static_cast<HTTPS_CLIENT*>(clientPtr);
  CHttpServer* server = client->CHttpServerEx;

  // The request path as the client sent it may still hold "..": resolve it
  // here too, whatever the dispatcher did, and refuse one that climbs out.
  CStr relative = client->Arg;
  bool contained = relative.PathSimplify('/');
  if (relative.First() != '/') relative = CStr("/") + relative;  // a climb back may eat the leading one
  CStr script = server->GetHomeDir();
  script.Cat(relative);
  script.NativePath();
  // A quote could end a quoted "%s" early and add words to the command
  // line; Windows names can't hold one, so such a file counts as absent.
  bool quoteFree = script.FindChar('"') < 0;
  if (!contained || !quoteFree || !script.FileExist() || !InsideDirectory(script, server->GetHomeDir())) {
    server->SendError(client, server->ErrMsg404, nullptr, 0);
    return true;
  }

  CStrList env;
  BuildEnvironment(server, client, script, env);
  CStr cmd = CommandLine(obj, script);
  CStr dir = script;
  dir.FilePath();

  CPipeStream pipe;
  pipe.Set();
  pipe.TimeOut = CgiTimeOut;
  server->PrintLog(client->Ip, "CGI Start %s", cmd.c_str());
  bool post = client->Method == CHttpServer::HTTPS_MET_POST;
  pipe.Open(cmd.c_str(), dir.c_str(), &env,
            CPIPE_BINARY | CPIPE_NOWINDOW | CPIPE_READ | (post ? CPIPE_WRITE : 0));
  if (post && client->Cgi && client->PostLen > 0) {
    int len = client->PostLen < client->Cgi->ArgsRaw.Len ? client->PostLen : client->Cgi->ArgsRaw.Len;
    try {
      if (len > 0) pipe.Write(client->Cgi->ArgsRaw.Str, (unsigned)len);
    } catch (int) {
      // The interpreter left without reading its input; what it wrote
      // (usually the reason) still goes to the client.
    }
  }
  Relay(server, client->Socket, pipe);
  pipe.Wait();  // the end of the output comes just before the child's end state
  if (pipe.GetStatus() & CPIPE_ST_TIMEDOUT) {
    server->PrintLog(client->Ip, "CGI Time-out %s", cmd.c_str());
    return false;
  }
  return true;
}

// ---------------------------------------------------------------- PHP

namespace {

// Quoted for the command line, and with '%' doubled: the gateway uses the
// text as a format.
CStr Quoted(const CStr& path) {
  CStr q("\"");
  for (int i = 0; i < path.Len; i++) {
    if (path.Str[i] == '%') q.CatChar('%');
    q.CatChar(path.Str[i]);
  }
  q.CatChar('"');
  return q;
}

bool FindOnPath(const char* name, CStr& found) {
  const char* pathVar = getenv("PATH");
  if (!pathVar) return false;
  const char listSep = PL_PATH_SEP == '/' ? ':' : ';';
  std::string dirs = pathVar;
  size_t start = 0;
  for (;;) {
    size_t stop = dirs.find(listSep, start);
    std::string dir = dirs.substr(start, stop == std::string::npos ? std::string::npos : stop - start);
    if (!dir.empty()) {
      CStr candidate(dir.c_str());
      candidate.CatChar(PL_PATH_SEP);
      candidate.Cat(name);
      if (candidate.FileExist()) {
        found = candidate;
        return true;
      }
    }
    if (stop == std::string::npos) return false;
    start = stop + 1;
  }
}

}  // namespace

bool FindPhpInterpreter(const CStr& progDir, CStr& path, CStr& args) {
  CStr base = progDir;
  base.Cat("/Php5/");
  base.NativePath();
  CStr ini = base;
  ini.Cat("php.ini");
  for (const char* exe : {"php-cgi", "php-cgi.exe"}) {
    CStr bundled = base;
    bundled.Cat(exe);
    if (!bundled.FileExist()) continue;
    path = bundled;
    args.Empty();
    if (ini.FileExist()) {
      args = "-c ";
      args.Cat(Quoted(ini));
      args.CatChar(' ');
    }
    args.Cat(kPhpOptions);
    return true;
  }
  CStr system;
  if (!FindOnPath("php-cgi", system) && !FindOnPath("php-cgi.exe", system)) return false;
  path = system;
  args = kPhpOptions;
  // The system's own php.ini caps uploads far below what the player
  // accepts; a bundled php.ini is the application author's to decide.
  args.Cat(kSystemPhpLimits);
  return true;
}
