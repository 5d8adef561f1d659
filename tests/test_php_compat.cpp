// ctest-labels: threads
// What real PHP applications need from the server and the gateway, checked
// against the real php-cgi with a probe script that prints what it was told.
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cgi_pool.h"
#include "cgiwrapper.h"
#include "php_options.h"
#include "phppool.h"
#include "pl_process.h"
#include "progdir.h"
#include "test_servers.h"

using namespace testsup;
namespace fs = std::filesystem;

namespace {

bool RefusingEngine(void*, void* c) {
  HTTPS_CLIENT* cl = (HTTPS_CLIENT*)c;
  cl->Socket->Puts("ENGINE-RAN");
  return true;
}

// Each test with one php-cgi per request (0) and with two workers.
class PhpCompat : public ::testing::TestWithParam<int> {
 protected:
  TempDir Home;
  PhpPool Pool;  // outlives the server
  std::unique_ptr<TestServer> S;

  void SetUp() override {
    CStr php, args;
    if (!FindPhpInterpreter(ProgDir, php, args)) GTEST_SKIP() << "php-cgi is not installed";
    fs::copy(LUMETTA_SOURCE_DIR "/tests/data/php", Home.Path(), fs::copy_options::recursive);
    Home.Write("plain.txt", "static text");
    S.reset(new TestServer(Home.Path()));
    CHttpServer& srv = S->Srv();
    srv.OnCgi = CgiWrapper;
    __https_obj* handler = srv.Vadd("php", php.Str, args.Str, HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED);
    if (GetParam() > 0) {
      ASSERT_TRUE(CgiStartPool(Pool, handler, GetParam())) << Pool.FailureText().c_str();
    }
    srv.DefDocs.Add("index.php");
    srv.EngsAdd("/act.ebd", RefusingEngine, HTTPS_OBJF_ENABLED);
    S->Start();
  }
  void TearDown() override {
    S.reset();
    CgiUsePool(nullptr, nullptr);
  }
  Reply Ask(const std::string& request) { return ParseReply(Exchange(S->Port(), request)); }
  // The probe's "NAME=value" lines as a map.
  std::map<std::string, std::string> Probe(const std::string& request) {
    std::map<std::string, std::string> vars;
    std::string body = Ask(request).Body;
    for (size_t at = 0, eol; at < body.size(); at = eol + 1) {
      eol = body.find('\n', at);
      if (eol == std::string::npos) eol = body.size();
      size_t eq = body.find('=', at);
      if (eq < eol) vars[body.substr(at, eq - at)] = body.substr(eq + 1, eol - eq - 1);
    }
    return vars;
  }
};

std::string Request(const std::string& method, const std::string& target, const std::string& headers = "",
                    const std::string& body = "") {
  std::string length = body.empty() ? "" : "Content-Length: " + std::to_string(body.size()) + "\r\n";
  return method + " " + target + " HTTP/1.1\r\nHost: localhost\r\n" + headers + length + "\r\n" + body;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Workers, PhpCompat, ::testing::Values(0, 2),
                         [](const ::testing::TestParamInfo<int>& i) { return i.param ? "Pool" : "PerRequest"; });

TEST_P(PhpCompat, LongQueryAndCookieArriveWhole) {
  std::string query = "a=" + std::string(5998, 'q'), cookie = "c=" + std::string(4094, 'k');
  auto v = Probe(Request("GET", "/probe.php?" + query, "Cookie: " + cookie + "\r\n"));
  EXPECT_EQ(v["query"], "6000 cookie=4096");
}

TEST_P(PhpCompat, EnvironmentAsApplicationsExpectIt) {
  const std::string home = Home.Path();
  const struct {
    std::string request;
    std::map<std::string, std::string> expect;
  } cases[] = {
      // Headers not sent are absent, not empty; REQUEST_URI keeps the query.
      {Request("GET", "/probe.php?x=1&y=%41"),
       {{"REQUEST_URI", "/probe.php?x=1&y=%41"}, {"SCRIPT_NAME", "/probe.php"}, {"HTTPS", "(unset)"},
        {"HTTP_REFERER", "(unset)"}, {"PATH_INFO", "(unset)"}, {"CONTENT_TYPE", "(unset)"}}},
      // Every other header reaches the script, Proxy never does.
      {Request("GET", "/probe.php",
               "Authorization: Bearer t0k.en\r\nX-Requested-With: XMLHttpRequest\r\n"
               "Origin: http://localhost\r\nProxy: http://evil.test:1/\r\nReferer: http://r/\r\n"),
       {{"HTTP_AUTHORIZATION", "Bearer t0k.en"}, {"HTTP_X_REQUESTED_WITH", "XMLHttpRequest"},
        {"HTTP_ORIGIN", "http://localhost"}, {"HTTP_PROXY", "(unset)"}, {"HTTP_REFERER", "http://r/"}}},
      // The path after the script is its PATH_INFO.
      {Request("GET", "/probe.php/users/7?q"),
       {{"SCRIPT_NAME", "/probe.php"}, {"PATH_INFO", "/users/7"}, {"PATH_TRANSLATED", PathSeenByPhp(home + "/users/7")},
        {"PHP_SELF", "/probe.php/users/7"}, {"REQUEST_URI", "/probe.php/users/7?q"}}},
      // A multipart boundary without leading dashes reaches PHP whole.
      {Request("POST", "/probe.php", "Content-Type: multipart/form-data; boundary=abc123\r\n",
               "--abc123\r\nContent-Disposition: form-data; name=\"f\"\r\n\r\nv 1\r\n--abc123--\r\n"),
       {{"CONTENT_TYPE", "multipart/form-data; boundary=abc123"}, {"post", "{\"f\":\"v 1\"} files="}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request.substr(0, 60));
    auto v = Probe(c.request);
    for (const auto& e : c.expect) EXPECT_EQ(v[e.first], e.second) << e.first;
  }
}

TEST_P(PhpCompat, StatusAfterOtherHeadersIsTheReplyStatus) {
  Reply r = Ask(Request("GET", "/late_status.php"));
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 403 Forbidden");
  EXPECT_EQ(r.Header("X-Page"), "late");
  EXPECT_NE(r.Header("Set-Cookie").find("seen=1"), std::string::npos);
  EXPECT_EQ(r.Head.find("Status:"), std::string::npos);
  EXPECT_EQ(r.Body, "no entry");
}

TEST_P(PhpCompat, WarningsGoToTheLogNotTheReply) {
  Reply r = Ask(Request("GET", "/warn.php"));
  EXPECT_EQ(r.Status, 200);
  EXPECT_EQ(r.Body, "before;after");
  EXPECT_EQ(r.Raw.find("Warning"), std::string::npos);
  EXPECT_TRUE(S->WaitLog("CGI /warn.php: PHP Warning:  Undefined array key \"missing-key\"")) << S->LogText();
}

TEST_P(PhpCompat, MethodsBeyondGetAndPost) {
  const std::string json = "{\"title\":\"new\",\"n\":1}";
  const struct {
    std::string request, method, input;
  } scripts[] = {
      {Request("PUT", "/probe.php", "Content-Type: application/json\r\n", json), "PUT", json},
      {Request("PATCH", "/probe.php", "Content-Type: application/json\r\n", json), "PATCH", json},
      {Request("DELETE", "/probe.php?id=3"), "DELETE", ""},
      {Request("OPTIONS", "/probe.php"), "OPTIONS", ""},
      {Request("put", "/probe.php", "", "raw=not-a-form"), "PUT", "raw=not-a-form"},
  };
  for (const auto& c : scripts) {
    SCOPED_TRACE(c.request.substr(0, 40));
    auto v = Probe(c.request);
    EXPECT_EQ(v["REQUEST_METHOD"], c.method);
    EXPECT_EQ(v["input"], c.input);
    EXPECT_EQ(v["post"], "[] files=");  // a body that is not a POST is never parsed as a form
  }
  EXPECT_EQ(Probe(Request("PUT", "/probe.php", "Content-Type: application/json\r\n", json))["CONTENT_TYPE"],
            "application/json");

  // HEAD runs a script or reads a file's headers, and never sends a body.
  Reply head = Ask(Request("HEAD", "/probe.php"));
  EXPECT_EQ(head.Status, 200);
  EXPECT_EQ(head.Header("Content-type"), "text/plain;charset=UTF-8");
  EXPECT_EQ(head.Body, "");
  head = Ask(Request("HEAD", "/plain.txt"));
  EXPECT_EQ(head.Status, 200);
  EXPECT_EQ(head.Header("Content-length"), "11");
  EXPECT_EQ(head.Body, "");

  // Everything else keeps its bare 405; missing scripts are still 404.
  const struct {
    std::string request, reply;
  } refused[] = {
      {Request("PUT", "/plain.txt", "", "x"), "HTTP/1.1 405 Method Not Allowed\r\n"},
      {Request("DELETE", "/"), "HTTP/1.1 405 Method Not Allowed\r\n"},
      {Request("PUT", "/act.ebd", "", "x"), "HTTP/1.1 405 Method Not Allowed\r\n"},
      {Request("HEAD", "/act.ebd"), "HTTP/1.1 405 Method Not Allowed\r\n"},
      {Request("TRACE", "/probe.php"), "HTTP/1.1 405 Method Not Allowed\r\n"},
      {Request("PUT", "/missing.php", "", "x"), "HTTP/1.1 404 Not Found\r\n"},
      // A body without a length is refused, not read as empty.
      {Request("PUT", "/probe.php", "Transfer-Encoding: chunked\r\n"), "HTTP/1.1 411 Length Required\r\n"},
  };
  for (const auto& c : refused) EXPECT_EQ(Ask(c.request).Raw, c.reply) << c.request.substr(0, 40);
}

TEST_P(PhpCompat, PostToADirectoryRunsItsDefaultDocument) {
  const std::string form = "Content-Type: application/x-www-form-urlencoded\r\n";
  EXPECT_EQ(Ask(Request("POST", "/app/", form, "user=ann")).Body, "POST /app/index.php /app/ user=ann");
  EXPECT_EQ(Ask(Request("POST", "/app?x=1", form, "user=bo")).Body, "POST /app/index.php /app?x=1 user=bo");
  EXPECT_EQ(Ask(Request("GET", "/app/")).Body, "GET /app/index.php /app/ user=");
  // Nothing there, or something that takes no body: a reply all the same.
  EXPECT_EQ(Ask(Request("POST", "/nothing/", form, "a=1")).Raw, "HTTP/1.1 404 Not Found\r\n");
  EXPECT_EQ(Ask(Request("POST", "/plain.txt", form, "a=1")).Raw, "HTTP/1.1 405 Method Not Allowed\r\n");
  EXPECT_EQ(Ask(Request("POST", "/", form, "a=1")).Raw, "HTTP/1.1 405 Method Not Allowed\r\n");
}

// Neither a default document nor a script with a path after it may be
// found through a link that leads out of the home directory.
TEST_P(PhpCompat, NewWaysToAScriptStayInside) {
  TempDir outside;
  outside.Write("index.php", "<?php echo 'OUTSIDE-RAN';");
  std::error_code ec;
  fs::create_directory_symlink(outside.Path(), Home.Join("linkdir"), ec);
  if (!ec) fs::create_symlink(outside.Join("index.php"), Home.Join("link.php"), ec);
  if (ec) GTEST_SKIP() << "no symbolic links here: " << ec.message();
  const std::string form = "Content-Type: application/x-www-form-urlencoded\r\n";
  for (const std::string& request :
       {Request("POST", "/linkdir/", form, "a=1"), Request("POST", "/linkdir", form, "a=1"),
        Request("PUT", "/linkdir/", "", "a=1"), Request("POST", "/app/../linkdir/", form, "a=1"),
        Request("GET", "/link.php/x"), Request("GET", "/linkdir/index.php/x"),
        Request("POST", "/link.php/x", form, "a=1"), Request("HEAD", "/link.php")}) {
    Reply r = Ask(request);
    EXPECT_EQ(r.Raw.find("OUTSIDE-RAN"), std::string::npos) << request.substr(0, 40);
    EXPECT_GE(r.Status, 403) << request.substr(0, 40);
  }
}

TEST_P(PhpCompat, PathInfoNeedsARealScript) {
  const struct {
    std::string target;
    int status;
    std::string body;
  } cases[] = {
      {"/missing.php/a/b", 404, ""},
      {"/app/index.php/x", 200, "GET /app/index.php /app/index.php/x user="},
      {"/probe.php/../hello.php", 200, "Hello nobody\n"},  // resolved as a path, not a route
      {"/plain.txt/x", 404, ""},
  };
  for (const auto& c : cases) {
    Reply r = Ask(Request("GET", c.target));
    EXPECT_EQ(r.Status, c.status) << c.target;
    if (!c.body.empty()) {
      EXPECT_EQ(r.Body, c.body) << c.target;
    }
  }
}

// Two long scripts take both workers: another page does not wait for them
// but runs in an interpreter of its own, and the log says so once.
TEST_P(PhpCompat, BusyWorkersLeaveOtherPagesToTheirOwnInterpreter) {
  if (GetParam() == 0) GTEST_SKIP() << "workers only";
  Home.Write("slow.php", "<?php sleep(2); echo 'slow';");
  Home.Write("pid.php", "<?php echo getmypid();");
  std::vector<long long> workers = Pool.WorkerPids();
  Pool.WaitForWorkerMs = 200;  // read only by request threads started later
  std::vector<std::thread> slow;
  std::vector<std::string> slowBodies(2);
  for (int i = 0; i < 2; i++) slow.emplace_back([&, i] { slowBodies[i] = Ask(Request("GET", "/slow.php")).Body; });
  PlSleepMs(500);
  for (int i = 0; i < 2; i++) {
    uint64_t start = PlMonotonicMs();
    std::string pid = Ask(Request("GET", "/pid.php")).Body;
    EXPECT_LT(PlMonotonicMs() - start, 1500u);
    ASSERT_FALSE(pid.empty());
    EXPECT_EQ(std::count(workers.begin(), workers.end(), std::stoll(pid)), 0) << pid;
  }
  for (auto& t : slow) t.join();
  EXPECT_EQ(slowBodies, std::vector<std::string>(2, "slow"));
  EXPECT_TRUE(S->WaitLog("CGI PHP workers all busy"));
  std::string log = S->LogText();
  size_t first = log.find("workers all busy");
  EXPECT_EQ(log.find("workers all busy", first + 1), std::string::npos) << log;
}

// ---------------------------------------------------------------- workers that can't be had

namespace {

// What the stand-in does when started as a worker.
enum WorkerAnswer { SERVE_FASTCGI, EXIT_WITH_ERROR, ANSWER_AS_CGI };

// A stand-in for php-cgi whose answer as a worker the test chooses: on
// POSIX the real one behind a shell script; on Windows a copy of the
// php-cgi.exe of the wine runs, told by a file beside it.
class PhpStandIn : public ::testing::Test {
 protected:
  TempDir Dir;
  std::string Script = Dir.Path() + "/php-cgi-standin";
  std::string RealPhp;
  PhpPool Pool;  // outlives the server
  std::unique_ptr<TestServer> S;
  __https_obj* Handler = nullptr;

  void SetUp() override {
    CStr php, args;
    if (!FindPhpInterpreter(CStr("/nonexistent"), php, args)) GTEST_SKIP() << "php-cgi is not installed";
    RealPhp = php.c_str();
    if (TestOnWindows()) {
      std::string beside = RealPhp.substr(0, RealPhp.find_last_of("\\/") + 1);
      if (!PlIsFile((beside + "php-relay.port").c_str())) GTEST_SKIP() << "needs the php-cgi.exe of the wine runs";
      Script = TestNativePath(CopyInterpreter(RealPhp, Dir.Path()));
    }
    ASSERT_TRUE(PhpRegisterOptions(CStr(Script.c_str()), CStr("")));
    Dir.Write("home/page.php", "<?php echo 'page ', $_GET['n'] ?? '';");
    S.reset(new TestServer(Dir.Path() + "/home"));
    S->Srv().OnCgi = CgiWrapper;
    StandIn(SERVE_FASTCGI);
    Handler = S->Srv().Vadd("php", Script.c_str(), "", HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED);
    ASSERT_NE(Handler, nullptr);
  }
  void TearDown() override {
    S.reset();
    CgiUsePool(nullptr, nullptr);
  }
  void StandIn(WorkerAnswer answer) {
    const char* const kCgiReply = "Content-Type: text/plain\r\n\r\nnot fastcgi";
    if (TestOnWindows()) {  // the exit code's line, then what goes to the output
      std::string file = Dir.Path() + "/php-cgi.worker";
      PlUnlink(file.c_str());
      if (answer != SERVE_FASTCGI) WriteFile(file, answer == EXIT_WITH_ERROR ? "1\n" : "0\n" + std::string(kCgiReply));
      return;
    }
    const std::string onSocket = answer == SERVE_FASTCGI     ? ":"
                                 : answer == EXIT_WITH_ERROR ? "exit 1"
                                                             : "printf '" + std::string(kCgiReply) + "'; exit 0";
    WriteFile(Script + ".new", "#!/bin/sh\nif [ -S /dev/stdin ]; then " + onSocket + "; fi\nexec \"" + RealPhp +
                                          "\" \"$@\"\n");
    fs::permissions(Script + ".new", fs::perms::owner_all);
    fs::rename(Script + ".new", Script);  // never half written while a worker starts
  }
  std::string Page(int n) {
    return ParseReply(Exchange(S->Port(), "GET /page.php?n=" + std::to_string(n) + " HTTP/1.1\r\nHost: localhost\r\n\r\n")).Body;
  }
  size_t Count(const std::string& text) {
    std::string log = S->LogText();
    size_t n = 0;
    for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size()) n++;
    return n;
  }
};

}  // namespace

TEST_F(PhpStandIn, InterpreterWithoutFastCgiRunsOnePerRequest) {
  StandIn(ANSWER_AS_CGI);
  EXPECT_FALSE(CgiStartPool(Pool, Handler, 2));
  EXPECT_FALSE(Pool.FailureText().IsEmpty());
  S->Start();
  for (int n = 0; n < 3; n++) EXPECT_EQ(Page(n), "page " + std::to_string(n));
}

TEST_F(PhpStandIn, WorkersThatCanNoLongerStartFallBackWithOneLogLine) {
  StandIn(SERVE_FASTCGI);
  ASSERT_TRUE(CgiStartPool(Pool, Handler, 1)) << Pool.FailureText().c_str();
  S->Start();
  EXPECT_EQ(Page(0), "page 0");
  StandIn(EXIT_WITH_ERROR);
  for (long long pid : Pool.WorkerPids()) {
    PlProcessKillId(pid);
    while (ProcessAlive(pid)) PlSleepMs(5);  // not a request lost to a worker mid-kill
  }
  for (int n = 1; n < 6; n++) EXPECT_EQ(Page(n), "page " + std::to_string(n));
  EXPECT_FALSE(Pool.IsRunning());
  EXPECT_TRUE(S->WaitLog("PHP workers unavailable"));
  EXPECT_EQ(Count("PHP workers unavailable"), 1u) << S->LogText();
}

// An interpreter shipped below the program's folder keeps its own php.ini,
// and neither that nor the player's settings can be switched off by a
// query that looks like options.
TEST(PhpBundled, OwnIniHoldsWhateverTheQuery) {
  CStr systemPhp, args;
  if (!FindPhpInterpreter(CStr("/nonexistent"), systemPhp, args)) GTEST_SKIP() << "php-cgi is not installed";
  TempDir dir;
  dir.Write("prog/Php5/php.ini", "memory_limit=77M\n");
  const std::string bundled = CopyInterpreter(systemPhp.c_str(), dir.Path() + "/prog/Php5");
  dir.Write("home/m.php", "<?php echo ini_get('memory_limit'), ':', $_SERVER['QUERY_STRING'];");
  CStr php;
  ASSERT_TRUE(FindPhpInterpreter(CStr((dir.Path() + "/prog").c_str()), php, args));
  EXPECT_EQ(std::string(php.c_str()), TestNativePath(bundled));
  EXPECT_TRUE(args.IsEmpty()) << args.c_str();
  TestServer s(dir.Path() + "/home");
  s.Srv().OnCgi = CgiWrapper;
  s.Srv().Vadd("php", php.Str, args.Str, HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED);
  s.Start();
  for (std::string q : {"a=1", "-n", "-s", "-c+/dev/null"})
    EXPECT_EQ(ParseReply(Exchange(s.Port(), "GET /m.php?" + q + " HTTP/1.1\r\nHost: localhost\r\n\r\n")).Body,
              "77M:" + q);
}
