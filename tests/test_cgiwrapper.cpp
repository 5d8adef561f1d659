// ctest-labels: threads
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "cgiwrapper.h"
#include "chttpserver.h"
#include "clog.h"
#include "engines_helpers.h"
#include "engines_server.h"
#include "pl_thread.h"

namespace fs = std::filesystem;

namespace {

// A home directory holding the PHP test pages, below a scratch directory
// that also has room for files the server must never reach.
class CgiTest : public ::testing::Test {
 protected:
  EnginesTempDir Scratch;
  std::string Home;
  std::unique_ptr<EnginesServer> Srv;

  void SetUp() override {
    Home = Scratch / "home";
    fs::create_directories(Home);
    fs::copy(std::string(LUMETTA_SOURCE_DIR) + "/tests/data/php", Home);
    CgiTimeOut = 600;
  }
  void TearDown() override {
    Srv.reset();
    CgiTimeOut = 600;
  }
  void StartServer(CLog* log = nullptr) {
    Srv.reset(new EnginesServer(Home, true, log));
    ASSERT_TRUE(Srv->Start());
  }
  unsigned short Port() const { return Srv->Port(); }
  // Registers the helper program as the interpreter for ext: it then
  // answers with exactly the bytes the test wants to see relayed.
  void FakeInterpreter(const char* ext, const std::string& args) {
    ASSERT_NE(Srv->Server->Vadd(ext, EnginesHelperPath().c_str(), args.c_str(), 8, 1), nullptr);
    EnginesWriteFile(Home + "/page." + ext, "");
  }
};

bool HasOurHeads(const EnginesReply& r) {
  return r.Header("Server") == "Lumetta Server" && r.Header("Date").find(" GMT") != std::string::npos;
}

std::string Hex(const std::string& s) {
  static const char digits[] = "0123456789abcdef";
  std::string out;
  for (unsigned char c : s) {
    out += digits[c >> 4];
    out += digits[c & 15];
  }
  return out;
}

}  // namespace

TEST_F(CgiTest, FindsAnInterpreter) {
  CStr path, args;
  ASSERT_TRUE(FindPhpInterpreter(CStr("/nonexistent"), path, args));
  EXPECT_TRUE(path.FileExist());
  EXPECT_NE(args.Find("cgi.force_redirect=0"), -1);

  // The bundled layout wins, with its php.ini; a '%' in the directory is
  // doubled because the gateway formats the argument text.
  std::string prog = Scratch / "pro%gram";
  fs::create_directories(prog + "/Php5");
  EnginesWriteFile(prog + "/Php5/php-cgi", "");
  EnginesWriteFile(prog + "/Php5/php.ini", "");
  ASSERT_TRUE(FindPhpInterpreter(CStr(prog.c_str()), path, args));
  EXPECT_EQ(std::string(path.c_str()), prog + "/Php5/php-cgi");
  EXPECT_EQ(std::string(args.c_str()).find("-c \"" + Scratch.Path() + "/pro%%gram/Php5/php.ini\" -d "), 0u);
}

TEST_F(CgiTest, GetAndPostForms) {
  StartServer();
  EnginesReply r = EnginesGet(Port(), "/hello.php?name=Ann+%26+Bo");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_TRUE(HasOurHeads(r));
  EXPECT_EQ(r.Body, "Hello Ann &amp; Bo\n");

  r = EnginesPost(Port(), "/form.php", "application/x-www-form-urlencoded", "a=1+2&b=%C3%A9");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(r.Body, "method=POST;a=1 2;b=\xC3\xA9");
}

TEST_F(CgiTest, MultipartUploadArrivesByteExact) {
  StartServer();
  std::string data;
  for (int i = 0; i < 2500; i++) data += (char)((i * 7 + i / 256) & 0xFF);
  data += "\r\n--XyZ\r\n";  // looks like a boundary but is not one
  std::string b = "----XyZ";
  std::string body = "--" + b + "\r\nContent-Disposition: form-data; name=\"note\"\r\n\r\nhi there\r\n" + "--" + b +
                     "\r\nContent-Disposition: form-data; name=\"doc\"; filename=\"d.bin\"\r\n"
                     "Content-Type: application/octet-stream\r\n\r\n" +
                     data + "\r\n--" + b + "--\r\n";
  EnginesReply r = EnginesPost(Port(), "/upload.php", "multipart/form-data; boundary=" + b, body);
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_TRUE(r.Body == "d.bin\n" + std::to_string(data.size()) + "\n" + Hex(data) + "\nhi there") << r.Raw.substr(0, 300);
}

TEST_F(CgiTest, EnvironmentFollowsTheTableInOrder) {
  setenv("TMP", "/tmp/lumetta-tmp", 1);
  unsetenv("TEMP");
  StartServer();
  EnginesReply r = EnginesGet(Port(), "/env.php?q=1",
                              "Accept: text/x-test\r\nCookie: c=1\r\nUser-Agent: UA/1\r\nReferer: http://r/\r\n"
                              "Proxy: http://evil:1/\r\nRedirect-Status: 200\r\nX-Other: 1\r\n");
  unsetenv("TMP");
  std::string port = std::to_string(Port());
  std::string remotePort;
  size_t rp = r.Body.find("REMOTE_PORT=");
  ASSERT_NE(rp, std::string::npos);
  remotePort = r.Body.substr(rp + 12, r.Body.find('\n', rp) - rp - 12);
  std::string script = Home + "/env.php";
  std::string expected = std::string("QUERY_STRING=q=1\n") + "DOCUMENT_ROOT=" + Home + "\n" +
                         "GATEWAY_INTERFACE=CGI/1.1\nHTTP_ACCEPT= text/x-test\nHTTP_ACCEPT_LANGUAGE=\n"
                         "HTTP_ACCEPT_ENCODING=\nHTTP_CONNECTION=\nHTTP_COOKIE=c=1\nHTTP_HOST=localhost\n"
                         "HTTP_REFERER=http://r/\nHTTPS=\nHTTP_UA_CPU=x86\nHTTP_USER_AGENT=UA/1\n" +
                         "PATH=" + getenv("PATH") + "\n" +
                         "PATH_INFO=\nPATH_TRANSLATED=\nREMOTE_ADDR=127.0.0.1\nREMOTE_HOST=127.0.0.1\n" +
                         "REMOTE_PORT=" + remotePort + "\nREQUEST_METHOD=GET\nREQUEST_URI=/env.php\n" +
                         "SCRIPT_FILENAME=" + script + "\nSCRIPT_NAME=/env.php\nSERVER_ADDR=127.0.0.1\n" +
                         "SERVER_NAME=localhost\nSERVER_PORT=" + port + "\n" +
                         "SERVER_SIGNATURE=<ADDRESS>Lumetta/1.0.3 Server at localhost Port " + port + "</ADDRESS>\n" +
                         "SERVER_PROTOCOL=HTTP/1.1\nSERVER_SOFTWARE=Lumetta/1.0.3 (Windows)\nTMP=/tmp/lumetta-tmp\n";
  EXPECT_EQ(r.Body, expected);
  // Request headers reach the interpreter only through the table.
  EXPECT_EQ(r.Body.find("PROXY"), std::string::npos);
  EXPECT_EQ(r.Body.find("REDIRECT_STATUS"), std::string::npos);
  EXPECT_EQ(r.Body.find("X_OTHER"), std::string::npos);
}

TEST_F(CgiTest, PostEnvironmentCarriesLengthAndBoundary) {
  StartServer();
  FakeInterpreter("envc", "env");
  EnginesReply r = EnginesPost(Port(), "/page.envc", "multipart/form-data; boundary=--B", "----B--\r\n");
  // The helper's output has no header block, so its first line is the
  // blank-line-free start of the body: look at the raw bytes.
  EXPECT_NE(r.Raw.find("\nCONTENT_LENGTH=9\nCONTENT_TYPE=multipart/form-data; boundary=-"), std::string::npos)
      << r.Raw;
  r = EnginesGet(Port(), "/page.envc");
  EXPECT_EQ(r.Raw.find("CONTENT_"), std::string::npos);
}

TEST_F(CgiTest, StatusLineRules) {
  StartServer();
  FakeInterpreter("s1", "print \"Status: 404 Not Found\\r\\nX-A: 1\\r\\n\\r\\nbody\"");
  FakeInterpreter("s2", "print \"status:302 Found\\r\\nLocation: /x\\r\\n\\r\\n\"");
  FakeInterpreter("s3", "print \"Status: 500 Cut off\"");
  FakeInterpreter("s4", "print \"Content-Type: text/plain\\r\\n\\r\\nplain\"");
  FakeInterpreter("s5", "print \"Status: 201 Made\\nX-B: 2\\n\\nlf\"");

  EnginesReply r = EnginesGet(Port(), "/page.s1");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 404 Not Found");
  ASSERT_EQ(r.Heads.size(), 3u);
  EXPECT_TRUE(HasOurHeads(r));
  EXPECT_EQ(r.Heads[2], "X-A: 1");
  EXPECT_EQ(r.Body, "body");

  r = EnginesGet(Port(), "/page.s2");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 02 Found");  // one character after the colon always goes
  EXPECT_EQ(r.Header("Location"), "/x");

  r = EnginesGet(Port(), "/page.s3");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(r.Raw.find("Cut off"), std::string::npos);
  EXPECT_EQ(r.Raw.substr(r.Raw.size() - 2), "\r\n");

  r = EnginesGet(Port(), "/page.s4");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(r.Header("Content-Type"), "text/plain");
  EXPECT_EQ(r.Body, "plain");

  r = EnginesGet(Port(), "/page.s5");
  EXPECT_EQ(r.Raw.find("HTTP/1.1 201 Made\r\nServer: Lumetta Server\r\n"), 0u);
  EXPECT_NE(r.Raw.find("X-B: 2\n\nlf"), std::string::npos);

  r = EnginesGet(Port(), "/status.php");  // the same through the real interpreter
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 404 Not Found");
  EXPECT_EQ(r.Body, "gone");
}

TEST_F(CgiTest, CommandLineDirectoryAndLongOutput) {
  StartServer();
  fs::create_directories(Home + "/sub dir");
  FakeInterpreter("pwd", "pwd");
  FakeInterpreter("named", "cgi-args \"%s\" tail");
  FakeInterpreter("big", "line 100000");
  fs::rename(Home + "/page.pwd", Home + "/sub dir/page.pwd");
  EXPECT_NE(EnginesGet(Port(), "/sub%20dir/page.pwd").Raw.find("\r\n" + Home + "/sub dir\n"), std::string::npos);
  EXPECT_EQ(EnginesGet(Port(), "/page.named").Body, "[" + Home + "/page.named]\n[tail]\n");
  // No line end in the first 4,096 bytes and many pieces after it.
  EnginesReply r = EnginesGet(Port(), "/page.big");
  EXPECT_EQ(r.Raw.find("HTTP/1.1 200 OK\r\nServer: Lumetta Server\r\nDate: "), 0u);
  EXPECT_TRUE(r.Raw.size() > 100001 && r.Raw.substr(r.Raw.size() - 100001) == std::string(100000, 'x') + "\n");
}

TEST_F(CgiTest, SessionAndCookieAcrossRequests) {
  StartServer();
  EnginesReply first = EnginesGet(Port(), "/session.php");
  EXPECT_EQ(first.Body, "n=1;cookie=");
  std::string cookies;
  for (const std::string& h : first.Heads) {
    if (h.compare(0, 12, "Set-Cookie: ") != 0) continue;
    std::string c = h.substr(12, h.find(';') - 12);
    cookies += (cookies.empty() ? "" : "; ") + c;
  }
  ASSERT_NE(cookies.find("PHPSESSID="), std::string::npos);
  EnginesReply second = EnginesGet(Port(), "/session.php", "Cookie: " + cookies + "\r\n");
  EXPECT_EQ(second.Body, "n=2;cookie=oat");
}

TEST_F(CgiTest, TimeOutEndsTheInterpreterAndKeepsWhatItWrote) {
  CLog log;
  log.Path = Scratch.Path().c_str();
  log.FileNamePref = "srv";
  log.LogLevel = 3;
  log.New();
  CgiTimeOut = 1;
  StartServer(&log);
  uint64_t start = PlMonotonicMs();
  EnginesReply r = EnginesGet(Port(), "/slow.php");
  EXPECT_LT(PlMonotonicMs() - start, 10000u);
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(r.Body, "partial\n");
  Srv.reset();
  CLog::Flush(&log);
  std::string logged;
  for (auto& e : fs::directory_iterator(Scratch.Path()))
    if (e.path().extension() == ".log") logged += EnginesReadFile(e.path().string());
  EXPECT_NE(logged.find("CGI Start "), std::string::npos);
  EXPECT_NE(logged.find("CGI Time-out "), std::string::npos);
}

TEST_F(CgiTest, MissingScriptGives404AndStartsNothing) {
  StartServer();
  std::string marker = Scratch / "started";
  ASSERT_NE(Srv->Server->Vadd("mk", EnginesHelperPath().c_str(), ("write-file " + marker).c_str(), 8, 1), nullptr);
  EnginesReply r = EnginesGet(Port(), "/nothing-here.mk");
  EXPECT_EQ(r.StatusLine.substr(0, 12), "HTTP/1.1 404");
  EXPECT_FALSE(fs::exists(marker));
  EnginesWriteFile(Home + "/real.mk", "");
  EnginesGet(Port(), "/real.mk");
  EXPECT_TRUE(fs::exists(marker));  // the same set-up does start it for a real file
}

TEST_F(CgiTest, InterpreterThatCannotStartLeavesTheServerServing) {
  StartServer();
  std::string gone = Scratch / "gone-interpreter";
  fs::copy_file(EnginesHelperPath(), gone);
  ASSERT_NE(Srv->Server->Vadd("gone", gone.c_str(), "print x", 8, 1), nullptr);
  fs::remove(gone);
  EnginesWriteFile(Home + "/page.gone", "");
  EXPECT_EQ(EnginesGet(Port(), "/page.gone").Raw, "");  // nothing sent, connection closed
  EXPECT_EQ(EnginesGet(Port(), "/hello.php").Body, "Hello nobody\n");
}

TEST_F(CgiTest, ConcurrentRequests) {
  StartServer();
  std::vector<std::thread> threads;
  std::vector<std::string> bodies(20);
  for (int i = 0; i < 20; i++)
    threads.emplace_back([this, i, &bodies] { bodies[i] = EnginesGet(Port(), "/echo.php?id=" + std::to_string(i)).Body; });
  for (auto& t : threads) t.join();
  for (int i = 0; i < 20; i++) EXPECT_EQ(bodies[i], "id=" + std::to_string(i) + ";len=" + std::to_string(1000 * i));
}

// ---------------------------------------------------------------- security

TEST_F(CgiTest, QueryNeverReachesTheCommandLine) {
  StartServer();
  FakeInterpreter("argv", "cgi-args -x");
  for (const char* q : {"", "?-s", "?-d+allow_url_include%3d1", "?%2ds", "?-n+-c+/etc/passwd", "?a+\"b\""}) {
    EnginesReply r = EnginesGet(Port(), std::string("/page.argv") + q);
    EXPECT_EQ(r.Body, "[-x]\n") << q;
  }
  // Nor does a file name: one with a quote could close a quoted "%s".
  FakeInterpreter("named", "cgi-args \"%s\"");
  EnginesWriteFile(Home + "/x\" -evil \".named", "");
  EnginesReply named = EnginesGet(Port(), "/x%22%20-evil%20%22.named");
  EXPECT_EQ(named.StatusLine.compare(0, 12, "HTTP/1.1 404"), 0) << named.Raw;
  EXPECT_EQ(named.Raw.find("-evil]"), std::string::npos);
  // php-cgi itself: a query without '=' never shows the source or turns
  // options on; at worst it refuses to run the page.
  for (const char* q : {"?-s", "?-d+allow_url_include%3d1", "?%2ds", "?+-s"}) {
    EnginesReply r = EnginesGet(Port(), std::string("/source.php") + q);
    EXPECT_EQ(r.Raw.find("SECRET-SOURCE-MARKER"), std::string::npos) << q;
    EXPECT_EQ(r.Raw.find("include-on"), std::string::npos) << q;
  }
  EXPECT_EQ(EnginesGet(Port(), "/source.php?x=-s").Body, "ran:x=-s:include-off");
}

TEST_F(CgiTest, ScriptsOutsideTheHomeDirectoryNeverRun) {
  EnginesWriteFile(Scratch / "outside.php", "<?php echo 'OUTSIDE-RAN';");
  fs::create_directories(Scratch / "elsewhere");
  EnginesWriteFile(Scratch / "elsewhere/x.php", "<?php echo 'OUTSIDE-RAN';");
  fs::create_directories(Home + "/sub");
  fs::create_symlink(Scratch / "outside.php", Home + "/link.php");
  fs::create_directory_symlink(Scratch / "elsewhere", Home + "/linkdir");
  StartServer();
  for (const char* target : {"/../outside.php", "/%2e%2e/outside.php", "/%2E%2E%2Foutside.php", "/sub/../../outside.php",
                             "/sub/%2e%2e/%2e%2e/outside.php", "/..%2foutside.php", "/link.php", "/linkdir/x.php",
                             "/./../outside.php"}) {
    EnginesReply r = EnginesGet(Port(), target);
    EXPECT_EQ(r.Raw.find("OUTSIDE-RAN"), std::string::npos) << target;
  }
  for (const char* target : {"/../outside.php", "/%2e%2e/outside.php", "/sub/../../outside.php", "/link.php"}) {
    EnginesReply r = EnginesPost(Port(), target, "application/x-www-form-urlencoded", "a=1");
    EXPECT_EQ(r.Raw.find("OUTSIDE-RAN"), std::string::npos) << "POST " << target;
  }
  EnginesReply inside = EnginesGet(Port(), "/sub/../hello.php");
  EXPECT_EQ(inside.Body, "Hello nobody\n") << inside.Raw;  // staying inside is fine
}
