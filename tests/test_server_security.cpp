// ctest-labels: threads
// Hostile requests: path traversal in every spelling we could think of,
// links out of the served directories, and malformed or truncated bodies.
// Secrets lie beside the home directory; no reply may ever carry them.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "chttpserver.h"
#include "dispatch_support.h"

using namespace dispatch_test;
namespace fs = std::filesystem;

namespace {

class SecurityTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // base/home is served; everything else under base is off limits. The
    // sibling names are chosen so that gluing a path onto a root without a
    // separator would reach them.
    Base.Write("secret.txt", "TOPSECRET-outside");
    Base.Write("homesecret.txt", "TOPSECRET-sibling-of-home");
    Base.Write("vrootcret.txt", "TOPSECRET-sibling-of-vroot");
    Base.Write("vrootx/secret.txt", "TOPSECRET-vrootx");
    Base.Write("home/a.txt", "inside");
    Base.Write("home/sub/x.txt", "inside sub");
    Base.MakeDir("home/docdir");
    Base.Write("vroot/ok.txt", "vdir ok");
    fs::create_symlink("../secret.txt", Base.Join("home/link_out"));
    fs::create_directory_symlink("..", Base.Join("home/dirlink"));
    fs::create_symlink("a.txt", Base.Join("home/inlink"));
    fs::create_directory_symlink("sub", Base.Join("home/linkdir_in"));
    fs::create_symlink("../../secret.txt", Base.Join("home/docdir/index.html"));
    fs::create_symlink("../secret.txt", Base.Join("vroot/vlink"));

    Server = new TestServer(Base.Join("home"));
    Server->Srv().DefDocs.Add("index.html");
    Server->Srv().VdirAdd("/v", Base.Join("vroot").c_str(), HTTPS_OBJF_ENABLED);
    Server->Srv().EngsAdd("/echo", EchoArgsEngine, HTTPS_OBJF_ENABLED);
    Server->Srv().SetMaxPostLen(1 << 16);
    Server->Start();
  }
  void TearDown() override { delete Server; }

  std::string Post(const std::string& headers, const std::string& body, bool halfClose = false) {
    return Exchange(Server->Port(), "POST /echo HTTP/1.1\r\n" + headers + "\r\n" + body, halfClose);
  }

  ScratchDir Base;
  TestServer* Server = nullptr;
};

TEST_F(SecurityTest, TraversalCorpusNeverLeavesTheRoots) {
  std::string abs = Base.Path();
  std::vector<std::string> corpus = {
      // Plain dot-dot steps in every position.
      "/..", "/../", "/../secret.txt", "/a.txt/../../secret.txt", "/sub/../../secret.txt",
      "/sub/x.txt/../../../secret.txt", "/../home/../secret.txt", "..", "../secret.txt",
      "/sub/../..", "/x/../secret.txt",
      // Encoded dots and slashes.
      "/%2e%2e/secret.txt", "/%2e%2e%2fsecret.txt", "/.%2e/secret.txt", "/%2e./secret.txt",
      "/%2E%2E/%2E%2E/secret.txt", "/sub%2f..%2f..%2fsecret.txt", "/.%2e/.%2e/secret.txt",
      // Double encoding stays a literal name.
      "/%252e%252e/secret.txt", "/%252e%252e%252fsecret.txt", "/%25%32%65%25%32%65/secret.txt",
      // Backslashes are ordinary characters here and must stay so.
      "/..\\secret.txt", "/..%5csecret.txt", "/%5c..%5csecret.txt", "/sub\\..\\..\\secret.txt",
      "/%2e%2e%5c%2e%2e%5csecret.txt", "\\..\\secret.txt",
      // Repeated separators.
      "//../secret.txt", "////../secret.txt", "/sub//..//..//secret.txt", "/.//..//secret.txt",
      "/sub/./../../secret.txt",
      // Absolute paths.
      "/" + abs + "/secret.txt", "//" + abs + "/secret.txt", abs + "/secret.txt",
      "http://localhost/../secret.txt", "/~/secret.txt",
      // NUL inside a name.
      "/a.txt%00.html", "/%00/../secret.txt", "/link_out%00",
      // Very long paths (the line reader cuts them, the rest is a header).
      "/" + std::string(10240, 'a'), "/" + [] { std::string s; for (int i = 0; i < 3500; i++) s += "../"; return s; }() + "secret.txt",
      "/" + [] { std::string s; for (int i = 0; i < 2500; i++) s += "a/"; for (int i = 0; i < 2600; i++) s += "../"; return s; }(),
      // Links out of the home directory.
      "/link_out", "/dirlink", "/dirlink/", "/dirlink/secret.txt", "/dirlink/home/../secret.txt",
      "/docdir/", "/docdir/index.html",
      // The virtual directory and its siblings.
      "/v/../secret.txt", "/vx/secret.txt", "/v/..%2f..%2fsecret.txt", "/v%2f..%2f..%2fsecret.txt",
      "/v/vlink", "/v/../../secret.txt", "/vrootx/secret.txt", "/v/%2e%2e/vrootx/secret.txt",
  };
  for (const std::string& target : corpus) {
    std::string raw = Exchange(Server->Port(), "GET " + target + " HTTP/1.1\r\nHost: h\r\n\r\n");
    Reply r = ParseReply(raw);
    EXPECT_TRUE(r.Status == 403 || r.Status == 404)
        << target.substr(0, 80) << " -> " << r.StatusLine;
    EXPECT_EQ(raw.find("TOPSECRET"), std::string::npos) << target.substr(0, 80);
    if (getenv("LUMETTA_SHOW_CORPUS"))
      printf("%-50s %s\n", target.substr(0, 50).c_str(), r.StatusLine.c_str());
  }
}

TEST_F(SecurityTest, LinksThatStayInsideAreServed) {
  EXPECT_EQ(Get(Server->Port(), "/a.txt").Body, "inside");
  EXPECT_EQ(Get(Server->Port(), "/inlink").Body, "inside");
  EXPECT_EQ(Get(Server->Port(), "/linkdir_in/x.txt").Body, "inside sub");
  EXPECT_EQ(Get(Server->Port(), "/v/ok.txt").Body, "vdir ok");
  EXPECT_EQ(Get(Server->Port(), "/sub/../a.txt").Body, "inside");
}

TEST_F(SecurityTest, MalformedBodiesGetAStatedReplyOrNone) {
  const std::string mp = "Content-Type: multipart/form-data; boundary=-B\r\n";
  auto len = [](const std::string& body) {
    return "Content-Length: " + std::to_string(body.size()) + "\r\n";
  };

  // A file part whose closing delimiter never comes is dropped; a text part
  // keeps the rest of the body.
  std::string body = "---B\r\nContent-Disposition: form-data; name=\"f\"; filename=\"a\"\r\n\r\n"
                     "data that never ends";
  EXPECT_EQ(ParseReply(Post(mp + len(body), body)).Body, "args 0\n");
  body = "---B\r\nContent-Disposition: form-data; name=\"t\"\r\n\r\nopen text";
  EXPECT_EQ(ParseReply(Post(mp + len(body), body)).Body, "args 1\nt\t9\topen text\n");

  // A part without headers is skipped; the next one is read.
  body = "---B\r\n\r\njunk\r\n---B\r\nContent-Disposition: form-data; name=\"k\"\r\n\r\nv\r\n---B--\r\n";
  EXPECT_EQ(ParseReply(Post(mp + len(body), body)).Body, "args 1\nk\t1\tv\n");

  // Headers cut short at the end of the body.
  for (std::string cut : {"---B\r\nContent-Disposition:", "---B\r\nContent-Disposition: name=\"abc",
                          "---B\r\nContent-Disposition: form-data; name=\"a\"; filename=",
                          "---B\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n", "---B", "-"}) {
    EXPECT_EQ(ParseReply(Post(mp + len(cut), cut)).Status, 200) << cut;
  }

  // A one-character boundary leaves nothing to search for: no reply.
  body = "--x\r\n";
  EXPECT_EQ(Post("Content-Type: multipart/form-data; boundary=x\r\n" + len(body), body), "");

  // A body shorter than announced, the client done sending.
  EXPECT_EQ(Post("Content-Type: application/x-www-form-urlencoded\r\nContent-Length: 100\r\n",
                 "a=1", true),
            "HTTP/1.1 413 Request Entity Too Large\r\n");
  EXPECT_TRUE(Server->WaitLog("Incomplete POST"));

  // Lengths that are no lengths.
  EXPECT_EQ(Post("Content-Length: -5\r\n", "a=1"), "HTTP/1.1 411 Length Required\r\n");
  EXPECT_EQ(Post("Content-Length: abc\r\n", "a=1"), "HTTP/1.1 411 Length Required\r\n");
  std::string huge = Post("Content-Length: 99999999999999\r\n", "a=1", true);
  EXPECT_TRUE(huge == "HTTP/1.1 411 Length Required\r\n" ||
              huge == "HTTP/1.1 413 Request Entity Too Large\r\n")
      << huge;
  std::string big = Post("Content-Length: 70000\r\n", std::string(70000, 'x'));
  EXPECT_EQ(big, "HTTP/1.1 413 Request Entity Too Large\r\n");
}

}  // namespace
