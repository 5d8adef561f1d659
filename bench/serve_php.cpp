// A bare server set up as the player sets up its own (loopback, the CGI
// gateway as OnCgi, "php" registered for php-cgi), for the PHP benchmark.
// Usage: serve_php <home directory> <port>. Runs until killed.
#include <cstdio>
#include <cstdlib>

#include "cgiwrapper.h"
#include "chttpserver.h"
#include "pl_net.h"
#include "pl_thread.h"
#include "progdir.h"
#include "runwrapper.h"

int main(int argc, char** argv) {
  if (argc < 3) {
    fprintf(stderr, "usage: serve_php <home directory> <port>\n");
    return 2;
  }
  PlNetStartup();
  CHttpServer server;
  server.SetListeningAddr(0x7F000001);
  server.EngsAdd("/run.ebd", RunWrapper, 1);
  server.OnCgi = CgiWrapper;
  if (!server.SetHomeDir(argv[1])) {
    fprintf(stderr, "serve_php: no directory %s\n", argv[1]);
    return 1;
  }
  server.SetPortA((unsigned short)atoi(argv[2]));
  server.CacheExpire = 0;
  server.ServerName = "Lumetta Server";
  CStr path, args;
  if (!FindPhpInterpreter(ProgDir, path, args) || !server.Vadd("php", path.Str, args.Str, 8, 1)) {
    fprintf(stderr, "serve_php: no php-cgi\n");
    return 1;
  }
  server.DefDocs.Add("index.php");
  if (!server.StartListening() || !server.StartAccepting()) {
    fprintf(stderr, "serve_php: cannot listen on port %s\n", argv[2]);
    return 1;
  }
  for (;;) PlSleepMs(1000);
}
