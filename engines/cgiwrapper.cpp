#include "cgiwrapper.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cgi_reply.h"
#include "chttpserver.h"
#include "cpipestream.h"
#include "pl_fs.h"
#include "pl_thread.h"

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

// The interpreter's standard output, read from its pipe.
class PipeOutput : public CgiOutput {
 public:
  explicit PipeOutput(CPipeStream& pipe) : Pipe(pipe) {}
  int Read(char* buf, int len) override { return (int)Pipe.Read(buf, (unsigned)len); }

 private:
  CPipeStream& Pipe;
};

// Drains the interpreter's error output into the log on a thread of its
// own, beside the relay of its standard output.
struct ErrorDrain {
  CPipeStream* Pipe;
  CgiErrorLog* Log;

  static unsigned Run(void* self) {
    ErrorDrain* d = static_cast<ErrorDrain*>(self);
    char buf[kChunk];
    unsigned n;
    while ((n = d->Pipe->ReadErr(buf, sizeof buf)) > 0) d->Log->Add(buf, (int)n);
    return 0;
  }
};

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
  CgiBuildEnvironment(server, client, script, env);
  CStr cmd = CommandLine(obj, script);
  CStr dir = script;
  dir.FilePath();

  CPipeStream pipe;
  pipe.Set();
  pipe.TimeOut = CgiTimeOut;
  server->PrintLog(client->Ip, "CGI Start %s", cmd.c_str());
  bool body = CHttpServer::HasRequestBody(client->Method);
  pipe.Open(cmd.c_str(), dir.c_str(), &env,
            CPIPE_BINARY | CPIPE_NOWINDOW | CPIPE_READ | CPIPE_STDERR | (body ? CPIPE_WRITE : 0));
  CgiErrorLog errors(server, client->Ip, client->Arg);
  ErrorDrain drain{&pipe, &errors};
  PlThread* drainThread = PlThreadStart(ErrorDrain::Run, &drain);
  if (body && client->Cgi && client->PostLen > 0) {
    int len = client->PostLen < client->Cgi->ArgsRaw.Len ? client->PostLen : client->Cgi->ArgsRaw.Len;
    try {
      if (len > 0) pipe.Write(client->Cgi->ArgsRaw.Str, (unsigned)len);
    } catch (int) {
      // The interpreter left without reading its input; what it wrote
      // (usually the reason) still goes to the client.
    }
  }
  PipeOutput output(pipe);
  CgiSendReply(server, client, output);
  pipe.Wait();  // the end of the output comes just before the child's end state
  if (drainThread) {
    PlThreadWait(drainThread, PL_INFINITE);  // the error pipe ends with the child
    PlThreadClose(drainThread);
  }
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
