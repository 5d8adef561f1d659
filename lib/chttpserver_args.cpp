// Request arguments: a minimal stand-in that keeps the raw query or body.
#include "chttpserver.h"

#include <cstring>

CCgi::CCgi() : Args(nullptr), TotArgs(0), LastArg(nullptr) {}

CCgi::~CCgi() { ArgsDelete(); }

CGI_ARG* CCgi::ArgsAdd(char* label, char* value) {
  CGI_ARG* arg = ArgsAddBin(label, value, value ? (int)strlen(value) : 0);
  arg->Val.UrlDecode();
  return arg;
}

CGI_ARG* CCgi::ArgsAddBin(char* label, char* data, int length) {
  CGI_ARG* arg = new CGI_ARG;
  arg->Next = nullptr;
  arg->Label = label;
  if (length > 0) arg->Val.Set(data, length);
  if (LastArg) LastArg->Next = arg; else Args = arg;
  LastArg = arg;
  TotArgs++;
  return arg;
}

int CCgi::ArgsCount() { return TotArgs; }

void CCgi::ArgsDelete() {
  while (Args) {
    CGI_ARG* next = Args->Next;
    delete Args;
    Args = next;
  }
  LastArg = nullptr;
  TotArgs = 0;
}

bool CHttpServer::ParseArgs(__https_obj*& object, HTTPS_CLIENT* client, int typeMask) {
  object = nullptr;
  if (client->Method != HTTPS_MET_POST) {
    object = ObjGet(typeMask, client->Arg.c_str());
    return true;
  }
  CCgi* cgi = new CCgi;
  client->Cgi = cgi;
  if (client->PostLen > 0) {
    CStr body;
    body.SetLen(client->PostLen);
    int got = client->Socket->Read(body.Str, client->PostLen);
    if (got < client->PostLen) {
      SendError(client, ErrMsg413, "Incomplete POST");
      return false;
    }
    cgi->ArgsRaw = body;
  }
  object = ObjGet(typeMask, client->Arg.c_str());
  return true;
}
