// Serves files over HTTP on 127.0.0.1 for benchmarks.
//   serve_file PORT DIR            the directory through the GET dispatch
//   serve_file PORT DIR NAME...    each /NAME through an engine that sends
//                                  the file the way the dispatch does
// Runs until it is stopped.
#include <cstdio>
#include <cstdlib>

#include "chttpserver.h"
#include "pl_fs.h"
#include "pl_thread.h"

namespace {

// Header and body of one file, as a cacheable 200 reply.
bool FileEngine(void* object, void* client) {
  __https_obj* obj = static_cast<__https_obj*>(object);
  HTTPS_CLIENT* cl = static_cast<HTTPS_CLIENT*>(client);
  CHttpServer* srv = cl->CHttpServerEx;
  PlStatInfo st;
  if (!PlStat(obj->Path.c_str(), &st)) {
    srv->SendError(cl, srv->ErrMsg404, nullptr);
    return false;
  }
  CStr ext = obj->Path.FileExt();
  if (srv->SendHeader(cl, (int)st.Size, srv->GetMimeType(ext), nullptr, st.MTime, 1))
    srv->SendFile(cl, obj->Path.c_str());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: serve_file PORT DIR [NAME...]\n");
    return 2;
  }
  PlNetStartup();
  CHttpServer srv;
  srv.ServerName = "Lumetta";
  srv.SetListeningAddr(0x7f000001);
  srv.SetPortA((unsigned short)atoi(argv[1]));
  if (!srv.SetHomeDir(argv[2])) {
    fprintf(stderr, "serve_file: %s is not a directory\n", argv[2]);
    return 2;
  }
  CMime* bin = srv.MimeList->Add();
  bin->Type = "application/octet-stream";
  bin->AddExt("bin");
  for (int i = 3; i < argc; ++i) {
    CStr alias = "/";
    alias += argv[i];
    __https_obj* obj = srv.EngsAdd(alias.c_str(), FileEngine, HTTPS_OBJF_ENABLED);
    obj->Path = argv[2];
    obj->Path.DirFixSep(true);
    obj->Path += argv[i];
  }
  try {
    srv.Start();
  } catch (int code) {
    fprintf(stderr, "serve_file: start failed (%d)\n", code);
    return 1;
  }
  printf("listening on %s\n", argv[1]);
  fflush(stdout);
  for (;;) PlSleepMs(60000);
}
