// The run wrapper behind "/run.ebd": reads the request's arguments, asks the
// desktop to open the file, folder or program, and redirects to the next page.
#include "runwrapper.h"

#include "chttpserver.h"
#include "pl_shell.h"
#include "progdir.h"

namespace {

struct ShowCmd {
  const char* Word;
  int State;
};

// Show states by the names pages use; searched in this order.
const ShowCmd kShowCmds[] = {
    {"hide", 0},           {"maximize", 3},        {"minimize", 6},        {"restore", 9},
    {"show", 5},           {"showdefault", 10},    {"showmaximized", 3},   {"showminimized", 2},
    {"showminnoactive", 7}, {"showna", 8},         {"shownoactivate", 4},  {"shownormal", 1},
};

struct RunRequest {
  CStr File;
  CStr Directory;
  CStr Parameters;
  bool HasParameters = false;
  CStr Page;
  bool HasPage = false;
  int Show = 1;
};

// An unknown word keeps the state there was.
void TakeShowCmd(const CStr& word, int& show) {
  for (const ShowCmd& s : kShowCmds) {
    if (word.CompareIC(s.Word) == 0) {
      show = s.State;
      return;
    }
  }
}

// Later occurrences of a name win; other names are ignored.
void ReadArguments(CCgi* cgi, RunRequest& r) {
  if (!cgi) return;
  for (CGI_ARG* a = cgi->Args; a; a = a->Next) {
    if (a->Label.CompareIC("file") == 0) {
      r.File = a->Val;
    } else if (a->Label.CompareIC("directory") == 0) {
      r.Directory = a->Val;
    } else if (a->Label.CompareIC("parameters") == 0) {
      r.Parameters = a->Val;
      r.HasParameters = true;
    } else if (a->Label.CompareIC("page") == 0) {
      r.Page = a->Val;
      r.HasPage = true;
    } else if (a->Label.CompareIC("showcmd") == 0) {
      TakeShowCmd(a->Val, r.Show);
    }
  }
}

}  // namespace

bool RunWrapper(void*, void* clientPtr) {
  HTTPS_CLIENT* client = static_cast<HTTPS_CLIENT*>(clientPtr);
  CHttpServer* server = client->CHttpServerEx;
  RunRequest r;
  ReadArguments(client->Cgi, r);
  r.File.NativePath();
  if (r.File.IsEmpty()) {
    server->SendError(client, server->ErrMsg403, "RUNWRAPPER", 0);
    return false;
  }
  // Only the parameters are expanded: file and directory are taken as the
  // page wrote them, a relative file against our current directory.
  if (r.HasParameters) ExpandTokens(r.Parameters);
  r.Directory.NativePath();
  bool opened = PlShellOpen(r.File.c_str(), r.HasParameters ? r.Parameters.c_str() : nullptr,
                            r.Directory.IsEmpty() ? nullptr : r.Directory.c_str(), r.Show);
  if (!opened) {
    server->SendError(client, server->ErrMsg403, "RUNWRAPPER", 0);
    return false;
  }
  if (r.HasPage) server->SendMoved(client->Socket, r.Page);
  return true;
}
