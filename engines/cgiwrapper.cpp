// The gateway's entry point: the command line for a script's interpreter, the
// run over a pipe or a pooled worker, and where the player looks for php-cgi.
#include "cgiwrapper.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <string>

#include "cgi_pool.h"
#include "cgi_reply.h"
#include "chttpserver.h"
#include "cpipestream.h"
#include "pl_fs.h"
#include "php_options.h"
#include "pl_process.h"
#include "pl_thread.h"

unsigned CgiTimeOut = 600;

namespace {

const int kChunk = 4096;

// Only when no settings file can be written: these options are lost for a
// query that looks like options (see php_options.h).
const char kPhpFallbackOptions[] = "-d cgi.force_redirect=0 -d cgi.fix_pathinfo=1";
const char kSystemPhpFallbackLimits[] = " -d post_max_size=64M -d upload_max_filesize=64M";

// The interpreter's standard output, read from its pipe in pieces of at
// most 4 KiB, as the gateway always has.
class PipeOutput : public CgiOutput {
 public:
  explicit PipeOutput(CPipeStream& pipe) : Pipe(pipe) {}
  int Read(char* buf, int len) override { return (int)Pipe.Read(buf, (unsigned)(len < kChunk ? len : kChunk)); }

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

  // The dispatcher has found the script inside the home directory by the
  // same rules as every file; empty means there is none.
  const CStr& script = client->LocalPath;
  // A quote could end a quoted "%s" early and add words to the command
  // line; Windows names can't hold one, so such a file counts as absent.
  if (script.IsEmpty() || script.FindChar('"') >= 0) {
    server->SendError(client, server->ErrMsg404, nullptr, 0);
    return true;
  }

  CgiEnv env;
  PhpAddOptionsEnvironment(obj->Path, env);
  CgiBuildEnvironment(server, client, script, env);
  CStr cmd = CommandLine(obj, script);
  CgiPoolRun pooled = CgiRunOnPool(obj, client, env, cmd);
  if (pooled != CGI_POOL_NOT_USED) return pooled == CGI_POOL_DONE;
  CStr dir = script;
  dir.FilePath();

  CPipeStream pipe;
  pipe.Set();
  pipe.TimeOut = CgiTimeOut;
  server->PrintLog(client->Ip, "CGI Start %s", cmd.c_str());
  bool body = CHttpServer::HasRequestBody(client->Method);
  CStrList envList;
  env.ToList(envList);
  pipe.Open(cmd.c_str(), dir.c_str(), &envList,
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
  std::string path;
  if (!PlFindProgram(name, &path)) return false;
  found = path.c_str();
  return true;
}

}  // namespace

bool FindPhpInterpreter(const CStr& progDir, CStr& path, CStr& args) {
  CStr base = progDir;
  base.Cat("/Php5/");
  base.NativePath();
  CStr ini = base;
  ini.Cat("php.ini");
  bool found = false;
  for (const char* exe : {"php-cgi", "php-cgi.exe"}) {
    CStr bundled = base;
    bundled.Cat(exe);
    if (!bundled.FileExist()) continue;
    path = bundled;
    found = true;
    break;
  }
  if (!found && !FindOnPath("php-cgi", path) && !FindOnPath("php-cgi.exe", path)) return false;
  args.Empty();
  if (!found || !ini.FileExist()) ini.Empty();
  if (PhpRegisterOptions(path, ini)) return true;
  if (!ini.IsEmpty()) {
    args = "-c ";
    args.Cat(Quoted(ini));
    args.CatChar(' ');
  }
  args.Cat(kPhpFallbackOptions);
  if (!found) args.Cat(kSystemPhpFallbackLimits);
  return true;
}
