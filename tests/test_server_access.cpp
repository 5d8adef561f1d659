// ctest-labels: threads
// The server as an attacker on the same machine meets it: requests without
// the access key, from foreign origins or under foreign Host names, header
// injection through redirects, lying Content-Length values, and clients that
// lie about their bodies (floods and memory: test_server_flood and
// test_server_memory).
#include <gtest/gtest.h>

#include <string>

#include "test_servers.h"

using namespace testsup;

namespace {

const char kKey[] = "0123456789abcdef0123456789abcdef";

// Echoes what an engine sees of the cookies.
bool CookieEngine(void*, void* c) {
  HTTPS_CLIENT* client = (HTTPS_CLIENT*)c;
  std::string out = std::string("cookies=") + client->InCookies.c_str();
  if (client->CHttpServerEx->SendHeader(client, (int)out.size(), "text/plain", nullptr, 0, 0))
    client->Socket->Write(out.data(), (int)out.size());
  return true;
}

// Redirects to its argument "page", as the run wrapper does.
bool MoveEngine(void*, void* c) {
  HTTPS_CLIENT* client = (HTTPS_CLIENT*)c;
  CStr page = client->Cgi && client->Cgi->Args ? client->Cgi->Args->Val : CStr("/");
  client->CHttpServerEx->SendMoved(client->Socket, page);
  return true;
}


class AccessTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Home.Write("a.txt", "inside");
    Home.Write("up.bin", "x");
    Server.Srv().EngsAdd("/run.ebd", EchoArgsEngine, HTTPS_OBJF_ENABLED);
    Server.Srv().EngsAdd("/cookies", CookieEngine, HTTPS_OBJF_ENABLED);
    Server.Srv().EngsAdd("/move", MoveEngine, HTTPS_OBJF_ENABLED);
    Server.Srv().Vadd("bin", Home.Join("up.bin").c_str(), nullptr, HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED);
    Server.Srv().OnCgi = BodySizeEngine;
    Server.Srv().SetMaxPostLen(64 << 20);
  }
  void StartKeyed() {
    ASSERT_TRUE(Server.Srv().SetAccessKey(kKey));
    Server.Start();
  }
  std::string HostLine() const { return "Host: localhost:" + std::to_string(Server.Port()) + "\r\n"; }
  std::string KeyCookie() const { return std::string("Cookie: lumetta_key=") + kKey + "\r\n"; }
  std::string Request(const std::string& line, const std::string& headers, const std::string& body = "") {
    return Exchange(Server.Port(), line + "\r\n" + headers + "\r\n" + body);
  }

  TempDir Home;
  TestServer Server{Home.Path()};
};

TEST_F(AccessTest, KeyHostAndOriginDecideWhoIsServed) {
  StartKeyed();
  const std::string port = std::to_string(Server.Port());
  const std::string own = "http://localhost:" + port;
  const std::string form = "Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 3\r\n";
  const std::string bare403 = "HTTP/1.1 403 Forbidden\r\n";
  const struct {
    const char* what;
    std::string line, headers, body;
    int status;
  } cases[] = {
      {"no cookie", "GET /a.txt HTTP/1.1", HostLine(), "", 403},
      {"wrong key", "GET /a.txt HTTP/1.1", HostLine() + "Cookie: lumetta_key=0123\r\n", "", 403},
      {"key of another case", "GET /a.txt HTTP/1.1", HostLine() + "Cookie: lumetta_key=" +
                                                          std::string(kKey).substr(1) + "0\r\n", "", 403},
      {"key", "GET /a.txt HTTP/1.1", HostLine() + KeyCookie(), "", 200},
      {"key among others", "GET /a.txt HTTP/1.1",
       HostLine() + "Cookie: a=1; lumetta_key=" + kKey + "; b=2\r\n", "", 200},
      {"run without key", "GET /run.ebd?file=/bin/sh HTTP/1.1", HostLine(), "", 403},
      {"run from a foreign page", "GET /run.ebd?file=/bin/sh HTTP/1.1",
       HostLine() + KeyCookie() + "Referer: http://evil.example/\r\n", "", 403},
      {"run from another port", "GET /run.ebd?file=/bin/sh HTTP/1.1",
       HostLine() + KeyCookie() + "Referer: http://localhost:1/x\r\n", "", 403},
      {"run cross-site fetch", "GET /run.ebd?file=/bin/sh HTTP/1.1",
       HostLine() + KeyCookie() + "Sec-Fetch-Site: cross-site\r\n", "", 403},
      {"run same-site fetch", "GET /run.ebd HTTP/1.1", HostLine() + KeyCookie() + "Sec-Fetch-Site: same-site\r\n", "", 403},
      {"run encoded name", "GET /run%2eebd HTTP/1.1", HostLine() + KeyCookie() + "Origin: null\r\n", "", 403},
      {"run from own page", "GET /run.ebd?file=x HTTP/1.1",
       HostLine() + KeyCookie() + "Referer: " + own + "/notes.php\r\nSec-Fetch-Site: same-origin\r\n", "", 200},
      {"run typed address", "GET /run.ebd HTTP/1.1", HostLine() + KeyCookie() + "Sec-Fetch-Site: none\r\n", "", 200},
      {"post from foreign form", "POST /run.ebd HTTP/1.1", HostLine() + KeyCookie() + form +
                                                                "Origin: http://evil.example\r\n", "a=1", 403},
      {"post to a page from another port", "POST /x.bin HTTP/1.1",
       HostLine() + KeyCookie() + form + "Origin: http://127.0.0.1:1\r\n", "a=1", 403},
      {"post from own form", "POST /x.bin HTTP/1.1", HostLine() + KeyCookie() + form + "Origin: " + own + "\r\n",
       "a=1", 200},
      {"plain get from a foreign page", "GET /a.txt HTTP/1.1",
       HostLine() + KeyCookie() + "Referer: http://evil.example/\r\n", "", 200},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(ParseReply(Request(c.line, c.headers, c.body)).Status, c.status);
  }
  // The page without the key says how to get in.
  Reply denied = ParseReply(Request("GET / HTTP/1.1", HostLine()));
  EXPECT_NE(denied.Body.find("lumetta-serve printed"), std::string::npos);
  EXPECT_EQ(denied.Header("Content-type"), "text/html");

  // Foreign or malformed Host names meet the bare line before anything else.
  const std::string hosts[] = {"evil.example:" + port, "localhost", "localhost:" + port + "0",
                               "localhost.evil.example:" + port, "127.0.0.2:" + port, "", "[::1]"};
  for (const std::string& h : hosts) {
    SCOPED_TRACE(h);
    std::string head = h.empty() ? KeyCookie() : "Host: " + h + "\r\n" + KeyCookie();
    EXPECT_EQ(Request("GET /run.ebd?file=/bin/sh HTTP/1.1", head), bare403);
  }
  for (std::string h : {"127.0.0.1:", "[::1]:", "LocalHost:"}) {
    EXPECT_EQ(ParseReply(Request("GET /a.txt HTTP/1.1", "Host: " + h + port + "\r\n" + KeyCookie())).Status,
              200) << h;
  }
  EXPECT_TRUE(Server.WaitLog("foreign Host"));
}

TEST_F(AccessTest, KeyAddressSetsTheCookieAndLeadsOnWithoutIt) {
  StartKeyed();
  const std::string cookie = std::string("lumetta_key=") + kKey + "; HttpOnly; SameSite=Strict; Path=/";
  const struct {
    std::string target, location;
  } cases[] = {
      {std::string("/?lumetta_key=") + kKey, "/"},
      {std::string("/a.txt?x=1&lumetta_key=") + kKey + "&y=2", "/a.txt?x=1&y=2"},
      {std::string("/docs/?lumetta_key=") + kKey, "/docs/"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    Reply r = ParseReply(Request("GET " + c.target + " HTTP/1.1", HostLine()));
    EXPECT_EQ(r.Status, 302);
    EXPECT_EQ(r.Header("Location"), c.location);
    EXPECT_EQ(r.Header("Set-Cookie"), cookie);
  }
  // A wrong key in the address, or a right one under a foreign Host, gives nothing.
  EXPECT_EQ(ParseReply(Request("GET /?lumetta_key=00 HTTP/1.1", HostLine())).Status, 403);
  EXPECT_EQ(Request(std::string("GET /?lumetta_key=") + kKey + " HTTP/1.1", "Host: evil.example\r\n"),
            "HTTP/1.1 403 Forbidden\r\n");
}

TEST_F(AccessTest, EnginesSeeTheApplicationsCookiesWithoutOurs) {
  StartKeyed();
  const struct {
    std::string header, seen;
  } cases[] = {
      {std::string("lumetta_key=") + kKey, "cookies="},
      {std::string("a=1; lumetta_key=") + kKey + "; b=x y", "cookies=a=1; b=x y"},
      {std::string("lumetta_key=") + kKey + ";sess=9;; lumetta_key=" + kKey, "cookies=sess=9"},
      {std::string("lumetta_keyx=1; lumetta_key=") + kKey, "cookies=lumetta_keyx=1"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(ParseReply(Request("GET /cookies HTTP/1.1", HostLine() + "Cookie: " + c.header + "\r\n")).Body,
              c.seen) << c.header;
}

TEST_F(AccessTest, WithoutKeyEveryClientIsServedAsBefore) {
  Server.Start();
  EXPECT_EQ(Get(Server.Port(), "/a.txt", "Referer: http://evil.example/\r\n").Body, "inside");
  EXPECT_EQ(ParseReply(Request("GET /a.txt HTTP/1.1", "Host: evil.example\r\n")).Status, 200);
  EXPECT_EQ(Get(Server.Port(), "/cookies", "Cookie: a=1; lumetta_key=2\r\n").Body, "cookies=a=1; lumetta_key=2");
}

TEST_F(AccessTest, RedirectsNeverCarryControlBytesIntoHeaders) {
  Server.Start();
  const struct {
    const char* page;
    const char* location;
  } cases[] = {
      {"/x%0d%0aSet-Cookie:%20a=1", "/x%0D%0ASet-Cookie: a=1"},
      {"/x%0aLocation:%20http://evil", "/x%0ALocation: http://evil"},
      {"/a%09b%00c%7f", "/a%09b%00c%7F"},
      {"/q%22%3E%3Cscript%3E", "/q%22%3E%3Cscript%3E"},
      {"/plain/page.php?x=1", "/plain/page.php?x=1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.page);
    Reply r = Get(Server.Port(), std::string("/move?page=") + c.page);
    EXPECT_EQ(r.Status, 302);
    EXPECT_EQ(r.Header("Location"), c.location);
    EXPECT_EQ(r.Header("Set-Cookie"), "");
    EXPECT_EQ(r.Raw, MovedReply(c.location));
  }
}

TEST_F(AccessTest, ContentLengthIsDigitsInRangeOrRefused) {
  Server.Start();
  const std::string bad = "HTTP/1.1 400 Bad Request\r\n";
  const struct {
    std::string headers, reply;
  } cases[] = {
      {"Content-Length: 4294967297\r\n", bad}, {"Content-Length: 3abc\r\n", bad},
      {"Content-Length: -5\r\n", bad},         {"Content-Length: abc\r\n", bad},
      {"Content-Length: +3\r\n", bad},         {"Content-Length: 1 2\r\n", bad},
      {"Content-Length:\r\n", bad},            {"Content-Length: 99999999999999999999\r\n", bad},
      {"Content-Length: 0x3\r\n", bad},        {"Content-Length: 3\r\nContent-Length: 4\r\n", bad},
      {"Content-Length: 0\r\n", "HTTP/1.1 411 Length Required\r\n"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(Request("POST /x.bin HTTP/1.1", HostLine() + c.headers, "a=1"), c.reply) << c.headers;
  for (std::string ok : {"Content-Length: 3\r\n", "Content-Length:  3 \r\n", "Content-Length: 3\r\nContent-Length: 3\r\n",
                         "Content-Length: 0003\r\n"})
    EXPECT_EQ(ParseReply(Request("POST /x.bin HTTP/1.1", HostLine() + ok, "a=1")).Body, "size 3") << ok;
  EXPECT_TRUE(Server.WaitLog("400 Bad Request (Content-Length)"));
}

}  // namespace
