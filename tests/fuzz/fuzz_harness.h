// Shared set-up of the fuzz targets that go through the real server: one
// request is written into a loopback connection and served on the calling
// thread from its first byte to its close.
#ifndef LUMETTA_TESTS_FUZZ_HARNESS_H
#define LUMETTA_TESTS_FUZZ_HARNESS_H

#include <string>

#include "chttpserver.h"
#include "test_servers.h"

// A server with a file, an engine that parses its arguments and the access
// key on, so the fuzzer meets the admission checks as well as the parser.
inline CHttpServer& FuzzServer() {
  static testsup::TempDir* home = [] {
    PlNetStartup();
    auto* d = new testsup::TempDir;
    d->Write("a.txt", "inside");
    d->Write("sub/index.html", "index");
    return d;
  }();
  static CHttpServer* srv = [] {
    auto* s = new CHttpServer;
    s->SetHomeDir(home->Path().c_str());
    s->SetPortA(8080);
    s->DefDocs.Add("index.html");
    s->EngsAdd("/echo", testsup::EchoArgsEngine, HTTPS_OBJF_ENABLED);
    s->SetMaxPostLen(1 << 20);
    return s;
  }();
  return *srv;
}

inline void ServeOne(const std::string& request) {
  testsup::LoopbackPair pair;
  if (!pair.Send(request)) return;
  pair.CloseFar();  // the reply goes nowhere; the request ends where the data does
  HTTPS_CLIENT* client = new HTTPS_CLIENT();
  client->CHttpServerEx = &FuzzServer();
  client->Socket = new CSocket(pair.TakeNear());
  CHttpServer::ClientEx(client);  // frees client and socket
}

#endif
