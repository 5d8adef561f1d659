// ctest-labels: threads
// GET dispatch, listings, redirects, default documents, passwords and request
// arguments, exercised through a real server over 127.0.0.1.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "chttpserver.h"
#include "dispatch_support.h"
#include "pl_fs.h"
#include "pl_path.h"

using namespace dispatch_test;

namespace {

const char kAuthBody[] =
    "<html>\n<head>\n  <title>401 Authorization Required</title>\n</head>\n<body>\n"
    "  <h1>Authorization Required</h1>\n  <p>This server could not verify that you\n"
    "  are authorized to access the document\n  requested.  Either you supplied the wrong\n"
    "  credentials (e.g., bad password), or your\n  browser doesn't understand how to supply\n"
    "  the credentials required.</p>\n  <hr>\n</body></html>\n";

std::string AuthReply(const std::string& realm) {
  return "HTTP/1.1 401 Authorization Required\r\nServer: LumettaTest\r\nWWW-Authenticate: Basic "
         "realm=\"" + realm + "\"\r\nContent-type: text/html\r\nConnection: close\r\n"
         "Content-length: " + std::to_string(sizeof kAuthBody - 1) + "\r\n\r\n" + kAuthBody;
}

std::string MovedReply(const std::string& url) {
  std::string body =
      "<head><title>Document Moved</title></head><body><h1>Object Moved</h1>This document may "
      "be found <a HREF=\"" + url + "\">here</a></body>";
  return "HTTP/1.1 302 Object Moved\r\nLocation: " + url +
         "\r\nServer: LumettaTest\r\nContent-type: text/html\r\nConnection: close\r\n"
         "Content-length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

bool CgiHook(void* o, void* c) {
  __https_obj* obj = (__https_obj*)o;
  HTTPS_CLIENT* client = (HTTPS_CLIENT*)c;
  std::string out = "cgi " + std::string(obj->Alias.c_str()) + " " + client->Arg.c_str();
  if (client->CHttpServerEx->SendHeader(client, (int)out.size(), "text/plain", nullptr, 0, 0))
    client->Socket->Write(out.data(), (int)out.size());
  return true;
}

std::string ListingDate(const std::string& path) {
  PlStatInfo info;
  EXPECT_TRUE(PlStat(path.c_str(), &info));
  struct tm local;
  char text[64] = "";
  if (PlLocalTime((time_t)info.MTime, &local)) strftime(text, sizeof text, "%b %d %Y %H:%M", &local);
  return text;
}

const char kListingHead[] =
    "<!DOCTYPE html PUBLIC \"-//W3C//DTD HTML 4.01 Transitional//ENhttp://www.w3.org/TR/html4/"
    "loose.dtd\">\n<html lang=\"en-gb\">\n<head>\n<meta http-equiv=\"content-language\" "
    "content=\"en-gb\">";

class DispatchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Home.Write("hello.txt", "hello from home\n");
    Home.Write("sub/index.html", "<p>sub index</p>");
    Home.MakeDir("plain");
    Server = new TestServer(Home.Path());
  }
  void TearDown() override { delete Server; }

  CHttpServer& Srv() { return Server->Srv(); }
  unsigned short Port() const { return Server->Port(); }

  ScratchDir Home;
  ScratchDir Outside;
  TestServer* Server = nullptr;
};

TEST_F(DispatchTest, ListingOrdersDirectoriesFirstCaseBlindWithParentLink) {
  std::string dir = Outside.MakeDir("listed");
  Outside.Write("listed/b.txt", "bb");
  Outside.Write("listed/C.txt", "ccc");
  Outside.Write("listed/a.TXT", "");
  Outside.MakeDir("listed/Zeta");
  Outside.MakeDir("listed/alpha");
  Outside.Write("listed/.hidden", "h");
  ASSERT_NE(Srv().VdirAdd("/files", dir.c_str(), HTTPS_OBJF_ENABLED | HTTPS_OBJF_BROWSE), nullptr);
  Server->Start();

  Reply r = Get(Port(), "/files/");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_TRUE(r.HasHeader("Content-type: text/html"));
  EXPECT_TRUE(r.HasHeader("Cache-Control: no-store"));
  EXPECT_EQ(r.Header("Content-length"), "");

  auto row = [&](const std::string& name, bool isDir, const std::string& size) {
    std::string s = "  <tr>\n    <td><a href=\"/files/" + name + "\">";
    if (isDir) s += "<b>" + name + "</b></a></td>\n    <td></td>\n";
    else s += name + "</a></td>\n    <td align=\"right\">" + size + "</td>\n";
    return s + "    <td>&nbsp;&nbsp;</td>\n    <td>" + ListingDate(dir + "/" + name) +
           "</td>\n  </tr>\n";
  };
  std::string expected = std::string(kListingHead) +
      "<title>\nIndex of /files</title>\n</head>\n<body>\n<h1>Index of /files</h1><hr>\n"
      "<table border=0>\n  <tr>\n    <td><b>Name</b></td>\n    <td><b>Size</b></td>\n"
      "    <td>&nbsp;&nbsp;</td>\n    <td><b>Date</b></td>\n  </tr>\n  <tr>\n    <td><a href=\"/\">"
      "<b>Parent</b></a></td>\n    <td></td>\n    <td></td>\n  </tr>\n" +
      row("alpha", true, "") + row("Zeta", true, "") + row(".hidden", false, "1") +
      row("a.TXT", false, "0") + row("b.txt", false, "2") + row("C.txt", false, "3") +
      "</table>\n<hr>\n</body>\n</html>\n";
  EXPECT_EQ(r.Body, expected);
  EXPECT_TRUE(Server->WaitLog("BROWSE \"/files/\""));

  // A nested directory links back to its parent; an empty one has only that row.
  Outside.MakeDir("listed/alpha/inner");
  r = Get(Port(), "/files/alpha/inner/");
  EXPECT_NE(r.Body.find("<h1>Index of /files/alpha/inner</h1>"), std::string::npos);
  EXPECT_NE(r.Body.find("<a href=\"/files/alpha\"><b>Parent</b></a>"), std::string::npos);
  EXPECT_EQ(r.Body.find("  <tr>\n    <td><a href=\"/files/alpha/inner/"), std::string::npos);
}

TEST_F(DispatchTest, TopLevelListingHasNoTableAndStyleSheetLinkWhenSet) {
  static std::string listedDir;
  listedDir = Outside.MakeDir("top");
  Outside.Write("top/x.txt", "x");
  Srv().SetDirCss("/look.css");
  // The top-level page is produced for the root URL; an engine asks for it.
  Srv().EngsAdd("/top", [](void*, void* c) {
    HTTPS_CLIENT* client = (HTTPS_CLIENT*)c;
    client->CHttpServerEx->DirList(client, "/", listedDir.c_str());
    return true;
  }, HTTPS_OBJF_ENABLED);
  Server->Start();

  Reply r = Get(Port(), "/top");
  EXPECT_EQ(r.Body, std::string(kListingHead) +
                        "<link rel=\"stylesheet\" type=\"text/css\" href=\"/look.css\">\n"
                        "<title>\nIndex of /</title>\n</head>\n<body>\n<h1>Index of /</h1><hr>\n"
                        "<hr>\n</body>\n</html>\n");
}

TEST_F(DispatchTest, DirectoryWithoutSlashIsRedirectedWithRebuiltAddress) {
  Server->Start();
  std::string port = std::to_string(Port());
  std::string raw = Exchange(Port(), "GET /sub HTTP/1.1\r\nHost: example.test\r\n\r\n");
  EXPECT_EQ(raw, MovedReply("http://example.test:" + port + "/sub/"));

  // A Host that carries a port already keeps it, without a second one.
  raw = Exchange(Port(), "GET /sub HTTP/1.1\r\nHost: 127.0.0.1:" + port + "\r\n\r\n");
  EXPECT_EQ(raw, MovedReply("http://127.0.0.1:" + port + "/sub/"));

  // Without a Host header the machine name stands in.
  raw = Exchange(Port(), "GET /plain HTTP/1.1\r\n\r\n");
  EXPECT_EQ(raw, MovedReply(std::string("http://") + Srv().HostName.c_str() + ":" + port + "/plain/"));

  // Characters that would break the header or the link are encoded again.
  Home.MakeDir("odd dir");
  raw = Exchange(Port(), "GET /odd%20dir HTTP/1.1\r\nHost: h\r\n\r\n");
  EXPECT_EQ(raw, MovedReply("http://h:" + port + "/odd%20dir/"));

  // With the slash the directory itself is answered: no default document,
  // no listing, no directory engine.
  EXPECT_EQ(Exchange(Port(), "GET /plain/ HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found\r\n");
}

TEST_F(DispatchTest, DefaultDocumentIsDispatchedUnderTheExtendedPath) {
  Srv().DefDocs.Add("missing.html");
  Srv().DefDocs.Add("index.html");
  Server->AddCommonMimeTypes();
  Server->Start();

  Reply r = Get(Port(), "/sub/");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_TRUE(r.HasHeader("Content-type: text/html"));
  EXPECT_TRUE(r.HasHeader("Content-length: 16"));
  EXPECT_TRUE(r.HasHeader("Cache-Control: public"));
  EXPECT_EQ(r.Body, "<p>sub index</p>");
  EXPECT_TRUE(Server->WaitLog("GET \"/sub/index.html\""));

  // The home directory itself gets the same treatment.
  Home.Write("index.html", "root index");
  EXPECT_EQ(Get(Port(), "/").Body, "root index");
  EXPECT_TRUE(Server->WaitLog("GET \"/index.html\""));
}

TEST_F(DispatchTest, DirectoryEngineAnswersWhenThereIsNoDefaultDocument) {
  Srv().EngsAdd("/plain/index.ebd", EchoArgsEngine, HTTPS_OBJF_ENABLED);
  Server->Start();
  // The directory matched no object, so no arguments were parsed for it.
  Reply r = Get(Port(), "/plain/?q=1");
  EXPECT_EQ(r.Body, "args 0\n");
}

TEST_F(DispatchTest, GuardedVirtualDirectoryAsksForCredentials) {
  std::string dir = Outside.MakeDir("private");
  Outside.Write("private/doc.txt", "classified");
  __https_obj* obj = Srv().VdirAdd("/private", dir.c_str(), HTTPS_OBJF_ENABLED);
  ASSERT_NE(obj, nullptr);
  Srv().SetPassword(obj, "alice", "s3cret");
  __https_obj* noUser = Srv().VdirAdd("/nouser", dir.c_str(), HTTPS_OBJF_ENABLED);
  Srv().SetPassword(noUser, "", "pw");
  Server->Start();

  EXPECT_EQ(Exchange(Port(), "GET /private/doc.txt HTTP/1.1\r\n\r\n"), AuthReply("private"));

  // alice:wrong
  std::string raw = Exchange(Port(),
      "GET /private/doc.txt HTTP/1.1\r\nAuthorization: Basic YWxpY2U6d3Jvbmc=\r\n\r\n");
  EXPECT_EQ(raw, AuthReply("private"));
  EXPECT_TRUE(Server->WaitLog("POST: Invalid user name alice or password"));

  // alice:s3cret
  Reply r = Get(Port(), "/private/doc.txt", "Authorization: Basic YWxpY2U6czNjcmV0\r\n");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(r.Body, "classified");

  // A guard without a user name refuses everybody.
  EXPECT_EQ(Exchange(Port(), "GET /nouser/doc.txt HTTP/1.1\r\n\r\n"), "HTTP/1.1 403 Forbidden\r\n");

  // Only the failed log-in with a name was logged, not the anonymous one.
  std::string log = Server->LogText();
  size_t first = log.find("Invalid user name");
  EXPECT_EQ(log.find("Invalid user name", first + 1), std::string::npos);
}

TEST_F(DispatchTest, EmptyPasswordMatchesAnObjectWithoutOneAndRemovalOpensIt) {
  Srv().EngsAdd("/open", EchoArgsEngine, HTTPS_OBJF_ENABLED);
  __https_obj* guarded = Srv().EngsAdd("/guarded", EchoArgsEngine, HTTPS_OBJF_ENABLED);
  Srv().SetPassword(guarded, "bob", nullptr);
  __https_obj* removed = Srv().EngsAdd("/removed", EchoArgsEngine, HTTPS_OBJF_ENABLED);
  Srv().SetPassword(removed, "bob", "x");
  Srv().RemovePassword(removed, nullptr, nullptr);
  Server->Start();

  // "bob:" decodes to an empty password.
  EXPECT_EQ(Get(Port(), "/guarded", "Authorization: Basic Ym9iOg==\r\n").Body, "args 0\n");
  EXPECT_EQ(Get(Port(), "/guarded").Status, 401);
  EXPECT_EQ(Get(Port(), "/removed").Body, "args 0\n");
}

TEST_F(DispatchTest, EngineReceivesQueryAndFormArguments) {
  Srv().EngsAdd("/echo", EchoArgsEngine, HTTPS_OBJF_ENABLED);
  Server->Start();

  EXPECT_EQ(Get(Port(), "/echo?a=1&b=&c=3").Body, "args 3\na\t1\t1\nb\t0\t\nc\t1\t3\n");
  EXPECT_EQ(Get(Port(), "/echo?lonely").Body, "args 1\nlonely\t0\t\n");
  // Values are decoded, names are not.
  EXPECT_EQ(Get(Port(), "/echo?n%41me=x+y%21").Body, "args 1\nn%41me\t4\tx y!\n");

  std::string body = "a=1&b=&c=3";
  std::string raw = Exchange(Port(),
      "POST /echo HTTP/1.1\r\nContent-Type: application/x-www-form-urlencoded\r\n"
      "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  EXPECT_EQ(ParseReply(raw).Body, "args 3\na\t1\t1\nb\t0\t\nc\t1\t3\n");
  EXPECT_TRUE(Server->WaitLog("POST \"/echo\""));

  // A body encoding the engine can't read ends the request without a reply.
  raw = Exchange(Port(), "POST /echo HTTP/1.1\r\nContent-Type: text/plain\r\n"
                         "Content-Length: 3\r\n\r\nabc");
  EXPECT_EQ(raw, "");
}

TEST_F(DispatchTest, MultipartUploadArrivesByteExact) {
  Srv().EngsAdd("/upload", EchoArgsEngine, HTTPS_OBJF_ENABLED);
  Srv().SetMaxPostLen(1 << 20);
  Server->Start();

  std::string file;
  for (int i = 0; i < 3000; i++) file += (char)(i * 7 % 256);
  static const char kNearMisses[] = "\r\n--\0\r\n\r\n------LumettaBoundaryX\0\0\r\n";
  file.append(kNearMisses, sizeof kNearMisses - 1);  // ends in CR LF, as files may
  const std::string b = "----LumettaBoundaryXYZ";
  std::string body =
      "--" + b + "\r\nContent-Disposition: form-data; name=\"title\"\r\n\r\nhello%21 world\r\n"
      "--" + b + "\r\nContent-Disposition: form-data; name=\"blob\"; filename=\"blob.bin\"\r\n"
      "Content-Type: application/octet-stream\r\n\r\n" + file + "\r\n"
      "--" + b + "\r\nContent-Disposition: form-data; name=\"none\"; filename=\"\"\r\n"
      "Content-Type: application/octet-stream\r\n\r\n\r\n"
      "--" + b + "\r\nContent-Disposition: form-data; name=\"after\"\r\n\r\nlast\r\n"
      "--" + b + "--\r\n";
  std::string raw = Exchange(Port(),
      "POST /upload HTTP/1.1\r\nContent-Type: multipart/form-data; boundary=" + b +
      "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
  std::string expected = "args 3\ntitle\t12\thello! world\nblob\t" + std::to_string(file.size()) +
                         "\t" + file + "\nafter\t4\tlast\n";
  EXPECT_EQ(ParseReply(raw).Body, expected);
}

TEST_F(DispatchTest, RegistryLookupRulesForFilesAndHandlers) {
  std::string first = Outside.Write("one/f.txt", "first");
  std::string second = Outside.Write("two/f.txt", "second");
  std::string single = Outside.Write("single.txt", "single file");
  Srv().VdirAdd("/docs", Outside.Join("one").c_str(), HTTPS_OBJF_ENABLED);
  Srv().VdirAdd("/docs", Outside.Join("two").c_str(), HTTPS_OBJF_ENABLED);
  Srv().VdirAdd("/off", Outside.Join("two").c_str(), 0);  // not enabled: never found
  Srv().VfileAdd("/single", single.c_str(), HTTPS_OBJF_ENABLED);
  Srv().VfileMapAdd("php", single.c_str(), "", HTTPS_OBJF_ENABLED);
  Srv().OnCgi = CgiHook;
  Server->Start();

  EXPECT_EQ(Get(Port(), "/docs/f.txt").Body, "first");
  EXPECT_EQ(Exchange(Port(), "GET /off/f.txt HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found\r\n");
  EXPECT_EQ(Get(Port(), "/single").Body, "single file");
  EXPECT_EQ(Exchange(Port(), "GET /single/ HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found\r\n");
  // With a query the plain virtual file is not an object: the home directory
  // has no such file.
  EXPECT_EQ(Exchange(Port(), "GET /single?x=1 HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found\r\n");
  // Extension handlers get the request whether or not the file exists.
  EXPECT_EQ(Get(Port(), "/nowhere/page.php?x=1").Body, "cgi php /nowhere/page.php");
}

TEST_F(DispatchTest, ParallelClientsEachGetTheirOwnFile) {
  std::vector<std::string> contents;
  for (int i = 0; i < 6; i++) {
    std::string c;
    size_t size = i == 0 ? 0 : (size_t)1 << (i * 3);  // 0, 8, 64, ... 32 KiB
    for (size_t k = 0; k < size; k++) c += (char)('a' + (k * 31 + i) % 26);
    contents.push_back(c);
    Home.Write("mix/f" + std::to_string(i) + ".txt", c);
  }
  Server->AddCommonMimeTypes();
  Server->Start();

  const int kClients = 200;
  std::atomic<int> good{0};
  std::vector<std::thread> clients;
  for (int n = 0; n < kClients; n++) {
    clients.emplace_back([&, n] {
      int i = n % 6;
      Reply r = Get(Port(), "/mix/f" + std::to_string(i) + ".txt");
      if (r.StatusLine == "HTTP/1.1 200 OK" && r.Body == contents[i] &&
          r.HasHeader("Content-type: text/plain"))
        good++;
    });
  }
  for (auto& t : clients) t.join();
  EXPECT_EQ(good.load(), kClients);
}

}  // namespace
