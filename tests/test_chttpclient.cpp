// ctest-labels: threads
// The HTTP client against scripted peers and our own server: body framings,
// transport failures, progress reports, redirects and credentials.
#include <gtest/gtest.h>

#include <memory>

#include "chttpclient.h"
#include "chttpserver.h"
#include "test_support.h"

using namespace testsup;

namespace {

const std::string kOkHead = "HTTP/1.1 200 OK\r\n";

std::string Fetch(CHttpClient& client) {
  std::unique_ptr<CStr> body(client.GetStr());
  return body ? std::string(body->c_str(), (size_t)body->Length()) : "<null>";
}

void Aim(CHttpClient& client, unsigned short port, const std::string& path = "/x", const std::string& user = "") {
  client.ParseUrl(("http://" + user + "127.0.0.1:" + std::to_string(port) + path).c_str());
}

// Progress callback: records every call and stops after StopAfter of them.
struct Progress {
  std::vector<std::pair<int, int>> Calls;
  size_t StopAfter = 1000;
};

bool Record(void* arg, int done, int total) {
  Progress* p = static_cast<Progress*>(arg);
  p->Calls.push_back({done, total});
  return p->Calls.size() < p->StopAfter;
}

}  // namespace

TEST(CHttpClient, BodyFramingsAndTheRequestSent) {
  ScriptedPeer peer({kOkHead + "Content-Length: 5\r\n\r\nhelloEXTRA",
                      kOkHead + "Transfer-Encoding: chunked\r\n\r\n5\r\nhello\r\n\x01" "7;ext=1\r\n, world\r\n\x01"
                                "0\r\nX-Trailer: y\r\n\r\n",
                      kOkHead + "Content-Type: text/plain\r\n\r\nuntil\x01 the end"});
  CHttpClient c;
  Aim(c, peer.Port());
  EXPECT_EQ(Fetch(c), "hello");
  EXPECT_EQ(Fetch(c), "hello, world");
  EXPECT_EQ(Fetch(c), "until the end");
  EXPECT_EQ(peer.Requests()[0],
            "GET /x HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n"
            "User-Agent: Mozilla/4.0 (compatible; CHttpClient)\r\nAccept: */*\r\n\r\n");
}

TEST(CHttpClient, StatusAndTransportFailures) {
  ScriptedPeer peer({"HTTP/1.1 404 Not Found\r\nContent-Length: 3\r\n\r\nno!",
                      "HTTP/1.1 301 Moved Permanently\r\nLocation: /x\r\n\r\n", "SSH-2.0-OpenLike\r\n",
                      "HTTP/1.1 302 Found\r\n\r\n", "", kOkHead + "Content-Length: 100\r\n\r\nonly\x01 a part"});
  CHttpClient c;
  Aim(c, peer.Port());
  EXPECT_EQ(c.Get(), nullptr);  // an answer, not a failure
  EXPECT_EQ(c.ErrCode, 404);
  EXPECT_EQ(ThrownCode([&] { c.Get(); }), CERR_HTTPCLI_STATUS);
  EXPECT_EQ(c.ErrCode, 301);
  EXPECT_EQ(ThrownCode([&] { c.Get(); }), CERR_HTTPCLI_NOTHTTP);
  EXPECT_EQ(ThrownCode([&] { c.Get(); }), CERR_HTTPCLI_STATUS);  // 302 without a Location
  EXPECT_EQ(ThrownCode([&] { c.Get(); }), CERR_HTTPCLI_RECV);    // closed before the status line
  EXPECT_EQ(ThrownCode([&] { c.Get(); }), CERR_HTTPCLI_RECV);    // closed inside the body
  c.Uri = "/a\r\nX-Injected: 1";
  EXPECT_EQ(ThrownCode([&] { c.Get(); }), CERR_HTTPCLI_NOPATH);
}

TEST(CHttpClient, ProgressAfterEveryRefillAndAbort) {
  const int size = 20000;
  std::string reply = kOkHead + "Content-Length: " + std::to_string(size) + "\r\n\r\n" + std::string(size, 'b');
  ScriptedPeer peer({reply, reply, kOkHead + "Content-Length: 0\r\n\r\n", kOkHead + "\r\n"});
  CHttpClient c;
  Aim(c, peer.Port());
  c.SetBlockSize(1 << 20);  // the receive block does not set the pace
  Progress all, stop;
  c.SetCallBack(Record, &all);
  EXPECT_EQ(Fetch(c), std::string(size, 'b'));
  // Every refill of the socket's 4 KiB buffer is reported, none is merged.
  ASSERT_GE(all.Calls.size(), (size_t)(size / 4096 + 1));
  for (size_t i = 0; i < all.Calls.size(); ++i) {
    int before = i ? all.Calls[i - 1].first : 0;
    EXPECT_GT(all.Calls[i].first, before);
    EXPECT_LE(all.Calls[i].first - before, 4096);
    EXPECT_EQ(all.Calls[i].second, size);
  }
  EXPECT_EQ(all.Calls.back().first, size);
  stop.StopAfter = 2;
  c.SetCallBack(Record, &stop);
  EXPECT_EQ(ThrownCode([&] { c.Get(); }), CERR_GEN_ABORTED);
  EXPECT_TRUE(c.AbortedByUser);
  EXPECT_EQ(stop.Calls.size(), 2u);
  // An empty body, with and without a length, is no body at all.
  c.SetCallBack(nullptr, nullptr);
  EXPECT_EQ(Fetch(c), "<null>");
  EXPECT_EQ(c.ErrCode, 200);
  EXPECT_EQ(Fetch(c), "<null>");
}

TEST(CHttpClient, FilesRedirectsAndCredentialsOnOurServer) {
  TempDir home;
  std::string data;
  for (int i = 0; i < 10000; ++i) data += (char)(i * 31);
  home.Write("data.bin", data);
  home.Write("sub/index.html", "index of sub");
  home.Write("private/doc.txt", "classified");
  CHttpServer srv;
  srv.SetHomeDir(home.Path().c_str());
  srv.DefDocs.Add("index.html");
  srv.SetPassword(srv.VdirAdd("/private", home.Join("private").c_str(), HTTPS_OBJF_ENABLED), "alice", "s3cret");
  unsigned short port = StartOnFreePort(srv);
  ASSERT_NE(port, 0);

  const struct {
    const char *path, *user, *body;
    int status;
  } cases[] = {{"/data.bin", "", nullptr, 200},  {"/sub", "", "index of sub", 200},  // 302 to "/sub/"
               {"/missing.txt", "", "<null>", 404}, {"/private/doc.txt", "", "<null>", 401},
               {"/private/doc.txt", "alice:wrong@", "<null>", 401},
               {"/private/doc.txt", "alice:s3cret@", "classified", 200}};
  CHttpClient c;
  for (auto& e : cases) {
    SCOPED_TRACE(std::string(e.user) + e.path);
    Aim(c, port, e.path, e.user);
    EXPECT_EQ(Fetch(c), e.body ? e.body : data);
    EXPECT_EQ(c.ErrCode, e.status);
  }
}
