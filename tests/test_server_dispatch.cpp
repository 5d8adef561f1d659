// ctest-labels: threads
// GET dispatch, listings, redirects, default documents, passwords and request
// arguments, exercised through a real server over 127.0.0.1.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "pl_fs.h"
#include "pl_time.h"
#include "test_servers.h"

using namespace testsup;

namespace {

// The listing shows local time, to the minute.
std::string ListingDate(const std::string& path) {
  PlStatInfo info;
  struct tm local;
  char text[64] = "";
  if (PlStat(path.c_str(), &info) && PlLocalTime((time_t)info.MTime, &local))
    strftime(text, sizeof text, "%b %d %Y %H:%M", &local);
  return text;
}

const std::string kListingHead =
    "<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.01 Transitional//ENhttp://www.w3.org/TR/html4/"
    "loose.dtd\">\n<html lang=\"en-gb\">\n<head>\n<meta http-equiv=\"content-language\" "
    "content=\"en-gb\">";

class DispatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Home.Write("sub/index.html", "<p>sub index</p>");
    Home.MakeDir("plain");
    Server.Srv().EngsAdd("/echo", EchoArgsEngine, HTTPS_OBJF_ENABLED);
  }
  CHttpServer& Srv() { return Server.Srv(); }
  unsigned short Port() const { return Server.Port(); }
  std::string Raw(const std::string& target, const std::string& headers = "") {
    return Exchange(Port(), "GET " + target + " HTTP/1.1\r\n" + headers + "\r\n");
  }

  TempDir Home, Outside;
  TestServer Server{Home.Path()};
};

TEST_F(DispatchTest, ListingPutsDirectoriesFirstCaseBlindWithParentLink) {
  std::string dir = Outside.MakeDir("listed");
  for (auto f : {std::make_pair("b.txt", "bb"), {"C.txt", "ccc"}, {"a.TXT", ""}, {".hidden", "h"}})
    Outside.Write(std::string("listed/") + f.first, f.second);
  Outside.MakeDir("listed/Zeta");
  Outside.MakeDir("listed/alpha/inner");
  ASSERT_NE(Srv().VdirAdd("/files", dir.c_str(), HTTPS_OBJF_ENABLED | HTTPS_OBJF_BROWSE), nullptr);
  Server.Start();

  auto row = [&](const std::string& name, const std::string& size) {
    std::string s = "  <tr>\n    <td><a href=\"/files/" + name + "\">";
    if (size.empty()) s += "<b>" + name + "</b></a></td>\n    <td></td>\n";
    else s += name + "</a></td>\n    <td align=\"right\">" + size + "</td>\n";
    return s + "    <td>&nbsp;&nbsp;</td>\n    <td>" + ListingDate(dir + "/" + name) + "</td>\n  </tr>\n";
  };
  auto table = [](const std::string& parent) {
    return "<table border=0>\n  <tr>\n    <td><b>Name</b></td>\n    <td><b>Size</b></td>\n"
           "    <td>&nbsp;&nbsp;</td>\n    <td><b>Date</b></td>\n  </tr>\n  <tr>\n    <td><a href=\"" +
           parent + "\"><b>Parent</b></a></td>\n    <td></td>\n    <td></td>\n  </tr>\n";
  };
  Reply r = Get(Port(), "/files/");
  EXPECT_EQ(r.Header("Content-type") + r.Header("Cache-Control") + r.Header("Content-length"),
            "text/htmlno-store");
  EXPECT_EQ(r.Body, kListingHead + "<title>\nIndex of /files</title>\n</head>\n<body>\n"
                    "<h1>Index of /files</h1><hr>\n" + table("/") + row("alpha", "") + row("Zeta", "") +
                    row(".hidden", "1") + row("a.TXT", "0") + row("b.txt", "2") + row("C.txt", "3") +
                    "</table>\n<hr>\n</body>\n</html>\n");
  EXPECT_TRUE(Server.WaitLog("BROWSE \"/files/\""));
  // A nested, empty directory links back to its parent and lists nothing else.
  r = Get(Port(), "/files/alpha/inner/");
  EXPECT_NE(r.Body.find("Index of /files/alpha/inner</h1><hr>\n" + table("/files/alpha") + "</table>"),
            std::string::npos);
}

TEST_F(DispatchTest, ListingShowsALinkWhoseTargetIsGone) {
  std::string dir = Outside.MakeDir("links");
  std::error_code ec;
  std::filesystem::create_symlink("nowhere-at-all", dir + "/gone", ec);
  if (ec) GTEST_SKIP() << "no symbolic links here: " << ec.message();
  Outside.Write("links/kept.txt", "k");
  ASSERT_NE(Srv().VdirAdd("/l", dir.c_str(), HTTPS_OBJF_ENABLED | HTTPS_OBJF_BROWSE), nullptr);
  Server.Start();
  std::string body = Get(Port(), "/l/").Body;
  // Shown as the link itself: a file as large as the name it points to.
  EXPECT_NE(body.find("<a href=\"/l/gone\">gone</a></td>\n    <td align=\"right\">14</td>"), std::string::npos)
      << body;
  EXPECT_NE(body.find("<a href=\"/l/kept.txt\">"), std::string::npos);
}

TEST_F(DispatchTest, TopLevelListingHasNoTable) {
  static std::string listed;
  listed = Outside.MakeDir("top");
  Outside.Write("top/x.txt", "x");
  Srv().SetDirCss("/look.css");
  Srv().EngsAdd("/top", [](void*, void* c) {
    HTTPS_CLIENT* client = (HTTPS_CLIENT*)c;
    client->CHttpServerEx->DirList(client, "/", listed.c_str());
    return true;
  }, HTTPS_OBJF_ENABLED);
  Server.Start();
  EXPECT_EQ(Get(Port(), "/top").Body,
            kListingHead + "<link rel=\"stylesheet\" type=\"text/css\" href=\"/look.css\">\n"
            "<title>\nIndex of /</title>\n</head>\n<body>\n<h1>Index of /</h1><hr>\n"
            "<hr>\n</body>\n</html>\n");
}

TEST_F(DispatchTest, DirectoryWithoutSlashIsRedirected) {
  Home.MakeDir("odd dir");
  Server.Start();
  const std::string port = std::to_string(Port());
  const struct { std::string target, headers, location; } cases[] = {
      {"/sub", "Host: example.test\r\n", "http://example.test:" + port + "/sub/"},
      {"/sub", "Host: 127.0.0.1:" + port + "\r\n", "http://127.0.0.1:" + port + "/sub/"},
      {"/plain", "", std::string("http://") + Srv().HostName.c_str() + ":" + port + "/plain/"},
      {"/odd%20dir", "Host: h\r\n", "http://h:" + port + "/odd%20dir/"},
  };
  for (const auto& c : cases) EXPECT_EQ(Raw(c.target, c.headers), MovedReply(c.location));
  // With the slash, a directory without default document or listing is not found.
  EXPECT_EQ(Raw("/plain/"), "HTTP/1.1 404 Not Found\r\n");
}

TEST_F(DispatchTest, DefaultDocumentIsServedUnderTheExtendedPath) {
  Srv().DefDocs.Add("missing.html");
  Srv().DefDocs.Add("index.html");
  Server.AddCommonMimeTypes();
  Home.Write("index.html", "root index");
  Server.Start();
  Reply r = Get(Port(), "/sub/");
  EXPECT_EQ(r.Header("Content-type") + " " + r.Header("Content-length") + " " + r.Header("Cache-Control"),
            "text/html 16 public");
  EXPECT_EQ(r.Body, "<p>sub index</p>");
  EXPECT_TRUE(Server.WaitLog("GET \"/sub/index.html\""));
  EXPECT_EQ(Get(Port(), "/").Body, "root index");
  EXPECT_TRUE(Server.WaitLog("GET \"/index.html\""));
}

TEST_F(DispatchTest, GuardedVirtualDirectory) {
  std::string dir = Outside.MakeDir("private");
  Outside.Write("private/doc.txt", "classified");
  Srv().SetPassword(Srv().VdirAdd("/private", dir.c_str(), HTTPS_OBJF_ENABLED), "alice", "s3cret");
  Srv().SetPassword(Srv().VdirAdd("/nouser", dir.c_str(), HTTPS_OBJF_ENABLED), "", "pw");
  Server.Start();

  EXPECT_EQ(Raw("/private/doc.txt"), AuthReply("private"));
  EXPECT_EQ(Raw("/private/doc.txt", "Authorization: Basic YWxpY2U6d3Jvbmc=\r\n"),  // alice:wrong
            AuthReply("private"));
  EXPECT_TRUE(Server.WaitLog("POST: Invalid user name alice or password"));
  Reply r = Get(Port(), "/private/doc.txt", "Authorization: Basic YWxpY2U6czNjcmV0\r\n");
  EXPECT_EQ(r.StatusLine + r.Body, "HTTP/1.1 200 OKclassified");
  // A guard without a user name refuses everybody.
  EXPECT_EQ(Raw("/nouser/doc.txt"), "HTTP/1.1 403 Forbidden\r\n");
  // Only the failed log-in with a name is logged, not the anonymous one.
  std::string log = Server.LogText();
  EXPECT_EQ(log.find("Invalid user name", log.find("Invalid user name") + 1), std::string::npos);
}

// The rest of the request path follows the mapped directory's path as it
// stands: "/vdb.txt" under "/vd" names "<dir>b.txt", a sibling of the
// directory, which containment refuses; it never becomes "<dir>/b.txt".
TEST_F(DispatchTest, VirtualDirectoryPathIsFollowedDirectlyByTheRest) {
  std::string dir = Outside.MakeDir("vd");
  Outside.Write("vd/b.txt", "in vd");
  Outside.Write("vdb.txt", "sibling");
  ASSERT_NE(Srv().VdirAdd("/vd", dir.c_str(), HTTPS_OBJF_ENABLED), nullptr);
  Server.Start();
  const struct { const char* target; int status; const char* body; } cases[] = {
      {"/vd/b.txt", 200, "in vd"}, {"/vdb.txt", 403, ""}, {"/vd//b.txt", 200, "in vd"}, {"/vd/", 404, ""}};
  for (const auto& c : cases) {
    Reply r = Get(Port(), c.target);
    EXPECT_EQ(r.Status, c.status) << c.target;
    EXPECT_EQ(r.Body, c.body) << c.target;
  }
}

// A directory without a default document is answered by its "/index.ebd"
// engine, which has no password step of its own there.
TEST_F(DispatchTest, DirectoryEngineIsCalledWithoutThePasswordStep) {
  Srv().SetPassword(Srv().EngsAdd("/plain/index.ebd", EchoArgsEngine, HTTPS_OBJF_ENABLED), "alice", "pw");
  Server.Start();
  EXPECT_EQ(Get(Port(), "/plain/").Body, "args 0\n");
  // Asked by its own name it is an engine like any other, guarded.
  EXPECT_EQ(Raw("/plain/index.ebd"), AuthReply("plain/index.ebd"));
}

TEST_F(DispatchTest, EngineReceivesQueryAndFormArguments) {
  Server.Start();
  const std::string abc = "args 3\na\t1\t1\nb\t0\t\nc\t1\t3\n";
  EXPECT_EQ(Get(Port(), "/echo?a=1&b=&c=3").Body, abc);
  EXPECT_EQ(Get(Port(), "/echo?lonely").Body, "args 1\nlonely\t0\t\n");
  EXPECT_EQ(Get(Port(), "/echo?n%41me=x+y%21").Body, "args 1\nn%41me\t4\tx y!\n");  // names stay raw

  const std::string post = "POST /echo HTTP/1.1\r\nContent-Length: 10\r\nContent-Type: ";
  EXPECT_EQ(ParseReply(Exchange(Port(), post + "application/x-www-form-urlencoded\r\n\r\na=1&b=&c=3")).Body, abc);
  EXPECT_TRUE(Server.WaitLog("POST \"/echo\""));
  // A body encoding the engine can't read ends the request without a reply.
  EXPECT_EQ(Exchange(Port(), post + "text/plain\r\n\r\na=1&b=&c=3"), "");
}

TEST_F(DispatchTest, MultipartUploadArrivesByteExact) {
  Srv().SetMaxPostLen(1 << 20);
  Server.Start();
  std::string file;
  for (int i = 0; i < 3000; i++) file += (char)(i * 7 % 256);
  // Near misses of the delimiter, NULs, and a CR LF at the very end.
  static const char kNearMisses[] = "\r\n--\0\r\n\r\n------LumettaBoundaryX\0\0\r\n";
  file.append(kNearMisses, sizeof kNearMisses - 1);
  const std::string b = "--" + std::string("----LumettaBoundaryXYZ");
  const std::string disp = "\r\nContent-Disposition: form-data; name=";
  const std::string octets = "\r\nContent-Type: application/octet-stream\r\n\r\n";
  std::string body = b + disp + "\"title\"\r\n\r\nhello%21 world\r\n" +
                     b + disp + "\"blob\"; filename=\"blob.bin\"" + octets + file + "\r\n" +
                     b + disp + "\"none\"; filename=\"\"" + octets + "\r\n" +
                     // The file name may come first; it is still a file, not a field called "x%41.bin".
                     b + "\r\nContent-Disposition: form-data; filename=\"x%41.bin\"; name=\"early\"" + octets +
                     "a%41\r\n" + b + disp + "\"after\"\r\n\r\nlast\r\n" + b + "--\r\n";
  std::string raw = Exchange(Port(),
      "POST /echo HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=" + b.substr(2) +
      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_TRUE(ParseReply(raw).Body == "args 4\ntitle\t12\thello! world\nblob\t" + std::to_string(file.size()) +
                                          "\t" + file + "\nearly\t4\ta%41\nafter\t4\tlast\n");
}

std::atomic<int> handlerCalls{0};
bool CountingHandler(void*, void* client) {
  handlerCalls++;
  HTTPS_CLIENT* c = static_cast<HTTPS_CLIENT*>(client);
  return c->Socket->Puts("HTTP/1.1 200 OK\r\n\r\nhandled") > 0;
}
bool SecondEngine(void*, void* client) {
  return static_cast<HTTPS_CLIENT*>(client)->Socket->Puts("HTTP/1.1 200 OK\r\n\r\nsecond") > 0;
}

TEST_F(DispatchTest, RegistryFirstMatchWinsAndSkipsDisabledEntries) {
  Srv().EngsAdd("/echo", SecondEngine, HTTPS_OBJF_ENABLED);  // registered after the fixture's
  Srv().EngsAdd("/off", SecondEngine, 0);
  Srv().OnCgi = CountingHandler;
  Home.Write("page.xyz", "source text");
  ASSERT_NE(Srv().VfileMapAdd("xyz", Home.Join("page.xyz").c_str(), nullptr, HTTPS_OBJF_ENABLED), nullptr);
  __https_obj* guarded = Srv().VfileAdd("/g.txt", Home.Write("g.txt", "guarded").c_str(), HTTPS_OBJF_ENABLED);
  Srv().SetPassword(guarded, "u", "p");
  Srv().RemovePassword(guarded, nullptr, nullptr);
  Server.Start();
  handlerCalls = 0;
  EXPECT_EQ(Get(Port(), "/echo?a=1").Body, "args 1\na\t1\t1\n");
  EXPECT_EQ(Get(Port(), "/off").Status, 404);
  // The extension handler answers for existing and missing files alike, and
  // the source text is never sent.
  EXPECT_EQ(Get(Port(), "/page.xyz").Raw, "HTTP/1.1 200 OK\r\n\r\nhandled");
  EXPECT_EQ(Get(Port(), "/missing.xyz").Raw, "HTTP/1.1 200 OK\r\n\r\nhandled");
  EXPECT_EQ(handlerCalls.load(), 2);
  EXPECT_EQ(Get(Port(), "/g.txt").Body, "guarded");
}

TEST_F(DispatchTest, ParallelClientsEachGetTheirOwnFile) {
  std::vector<std::string> contents;
  for (size_t i = 0, size = 0; i < 6; i++, size = (size_t)1 << (i * 3)) {  // 0, 8, 64 ... 32 KiB
    contents.emplace_back(size, (char)('a' + i));
    for (size_t k = 0; k < size; k += 7) contents.back()[k] = (char)('0' + k % 10);
    Home.Write("mix/f" + std::to_string(i) + ".txt", contents.back());
  }
  Server.AddCommonMimeTypes();
  Server.Start();
  const int kClients = 200;
  std::atomic<int> good{0};
  std::vector<std::thread> clients;
  for (int n = 0; n < kClients; n++)
    clients.emplace_back([&, n] {
      Reply r = Get(Port(), "/mix/f" + std::to_string(n % 6) + ".txt");
      if (r.Status == 200 && r.Body == contents[n % 6] && r.Header("Content-type") == "text/plain")
        good++;
    });
  for (auto& t : clients) t.join();
  EXPECT_EQ(good.load(), kClients);
}

}  // namespace
