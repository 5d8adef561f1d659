// ctest-labels: threads
// The CGI gateway with the real php-cgi, per request and through the worker
// pool: forms and uploads, the script's environment, status lines, time-outs,
// scripts outside the home directory, and interpreters that die or never start.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cgi_pool.h"
#include "cgiwrapper.h"
#include "phppool.h"
#include "pl_thread.h"
#include "progdir.h"
#include "test_servers.h"

using namespace testsup;

namespace fs = std::filesystem;

namespace {

const size_t npos = std::string::npos;

#define SKIP_WITHOUT_PHP() \
  if (!HavePhp()) GTEST_SKIP() << "no PHP interpreter (php-cgi) on this machine"

// A home directory holding the PHP test pages, below a scratch directory
// that has room for files the server must never reach. Every test runs
// with one php-cgi per request (0) and with the player's default of two
// workers.
class CgiTest : public ::testing::TestWithParam<int> {
 protected:
  TempDir Scratch;
  std::string Home = Scratch.Join("home");
  PhpPool Pool;  // outlives the server
  std::unique_ptr<TestServer> Srv;

  void SetUp() override {
    fs::copy(LUMETTA_SOURCE_DIR "/tests/data/php", Home);
    Srv = Start();
    ASSERT_NE(Srv, nullptr);
  }
  void TearDown() override {
    Srv.reset();
    CgiUsePool(nullptr, nullptr);
    CgiTimeOut = 600;
  }
  // The generated settings directory the interpreter is given.
  static std::string ScanDir() {
    CStrList env;
    AddPhpOptions(env);
    std::string var = env.Count() ? env[0]->c_str() : "";
    return var.substr(std::min(var.size(), var.find('=') + 2));  // after the list's leading empty entry
  }
  bool Pooled() const { return GetParam() > 0; }
  std::unique_ptr<TestServer> Start() {
    ServerSetup setup;
    setup.AsPlayer = setup.Php = true;
    setup.Pool = Pooled() ? &Pool : nullptr;
    setup.Workers = GetParam();
    auto server = std::make_unique<TestServer>(Home, setup);
    return server->Start() ? std::move(server) : nullptr;
  }
  Reply Get(const std::string& target, const std::string& heads = "") {
    return testsup::Get(Srv->Port(), target, heads);
  }
  // Without a PHP interpreter (Windows here) the PHP pages cannot run.
  static bool HavePhp() {
    CStr path, args;
    return FindPhpInterpreter(ProgDir, path, args);
  }
  // The helper program as the interpreter of ext: it answers with exactly
  // the bytes a test wants relayed.
  void Fake(const char* ext, const std::string& args) {
    ASSERT_NE(Srv->Srv().Vadd(ext, PipeHelperPath().c_str(), args.c_str(), HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED), nullptr);
    WriteFile(Home + "/page." + ext, "");
  }
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Workers, CgiTest, ::testing::Values(0, 2),
                         [](const ::testing::TestParamInfo<int>& i) { return i.param ? "Pool" : "PerRequest"; });

TEST_P(CgiTest, GetAndPostForms) {
  SKIP_WITHOUT_PHP();
  Reply r = Get("/hello.php?name=Ann+%26+Bo");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(r.Body, "Hello Ann &amp; Bo\n");
  r = Post(Srv->Port(), "/form.php", "application/x-www-form-urlencoded", "a=1+2&b=%C3%A9");
  EXPECT_EQ(r.Body, "method=POST;a=1 2;b=\xC3\xA9");
}

TEST_P(CgiTest, MultipartUploadArrivesByteExact) {
  std::string data;
  for (int i = 0; i < 2500; i++) data += (char)((i * 7 + i / 256) & 0xFF);
  data += "\r\n--XyZ\r\n";  // looks like a boundary but is not one
  const std::string b = "----XyZ", part = "--" + b + "\r\nContent-Disposition: form-data; name=";
  std::string body = part + "\"note\"\r\n\r\nhi there\r\n" + part +
                     "\"doc\"; filename=\"d.bin\"\r\nContent-Type: application/octet-stream\r\n\r\n" + data +
                     "\r\n--" + b + "--\r\n";
  if (!HavePhp()) {  // the helper shows the body exactly as the interpreter reads it
    Fake("up", "cgi-echo");
    Reply r = Post(Srv->Port(), "/page.up", "multipart/form-data; boundary=" + b, body);
    size_t end = r.Body.find("\n\n");
    ASSERT_NE(end, npos) << r.Raw.substr(0, 300);
    EXPECT_NE(("\n" + r.Body).find("\nCONTENT_TYPE=multipart/form-data; boundary="), npos);
    EXPECT_TRUE(r.Body.substr(end + 2) == body);
    return;
  }
  Reply r = Post(Srv->Port(), "/upload.php", "multipart/form-data; boundary=" + b, body);
  EXPECT_TRUE(r.Body == "d.bin\n" + std::to_string(data.size()) + "\nhi there\n" + data) << r.Raw.substr(0, 300);
}

// $_SERVER rather than getenv(): a worker's own environment is not the
// request's, and scripts read their request from $_SERVER. Both ways of
// running the script give the same list, the player's PHP settings first.
TEST_P(CgiTest, EnvironmentFollowsTheTableInOrder) {
  SKIP_WITHOUT_PHP();
  TestSetEnv("TMP", "/tmp/lumetta-tmp");
  TestSetEnv("TEMP", nullptr);
  Reply r = Get("/server_vars.php?q=1",
                       "Accept: text/x-test\r\nCookie: c=1\r\nUser-Agent: UA/1\r\nReferer: http://r/\r\n"
                       "Proxy: http://evil:1/\r\nRedirect-Status: 200\r\nX-Other: 1\r\nX_Under: no\r\n"
                       "If-None-Match: \"e1\"\r\nx-other:  2 \r\n");
  TestSetEnv("TMP", nullptr);
  std::string port = std::to_string(Srv->Port());
  size_t rp = r.Body.find("REMOTE_PORT=");
  ASSERT_NE(rp, npos);
  std::string remotePort = r.Body.substr(rp + 12, r.Body.find('\n', rp) - rp - 12);
  // Header variables only for headers sent; the others after the fixed
  // list, a repeated one joined; Proxy and names with "_" never.
  // The host's php-cgi under wine reads its list with the host's separator.
  const char* comspec = getenv("COMSPEC");
  std::string home = PathSeenByPhp(Home);
  std::string expected = "PHP_INI_SCAN_DIR=:" + PathSeenByPhp(ScanDir()) + "\n" +
                         (comspec ? "COMSPEC=" + std::string(comspec) + "\n" : "") +
                         "QUERY_STRING=q=1\nDOCUMENT_ROOT=" + home +
                         "\nGATEWAY_INTERFACE=CGI/1.1\nHTTP_ACCEPT= text/x-test\nHTTP_COOKIE=c=1\n"
                         "HTTP_HOST=localhost\nHTTP_REFERER=http://r/\nHTTP_USER_AGENT=UA/1\nPATH=" +
                         getenv("PATH") +
                         "\nREMOTE_ADDR=127.0.0.1\nREMOTE_HOST=127.0.0.1\n"
                         "REMOTE_PORT=" + remotePort + "\nREQUEST_METHOD=GET\nREQUEST_URI=/server_vars.php?q=1\n"
                         "SCRIPT_FILENAME=" + PathSeenByPhp(Home + "/server_vars.php") + "\nSCRIPT_NAME=/server_vars.php\nSERVER_ADDR=127.0.0.1\n"
                         "SERVER_NAME=localhost\nSERVER_PORT=" + port +
                         "\nSERVER_PROTOCOL=HTTP/1.1\nSERVER_SIGNATURE=<ADDRESS>Lumetta/1.0.3 Server at localhost Port " +
                         port + "</ADDRESS>\nSERVER_SOFTWARE=Lumetta/1.0.3 (Windows)\nTMP=/tmp/lumetta-tmp\n"
                         "HTTP_REDIRECT_STATUS=200\nHTTP_X_OTHER=1, 2\nHTTP_IF_NONE_MATCH=\"e1\"\n";
  EXPECT_EQ(WithoutSystemVariables(r.Body), expected);
}

TEST_P(CgiTest, StatusLineFromTheInterpreter) {
  Fake("low", "print \"status:302 Found\\r\\nLocation: /x\\r\\n\\r\\n\"");
  Reply r = Get("/page.low");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 02 Found");  // one character after the colon always goes
  EXPECT_TRUE(r.Has("\r\nLocation: /x\r\n"));
  if (!HavePhp()) return;
  r = Get("/status.php");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 404 Not Found");
  EXPECT_TRUE(r.Has("\r\nServer: Lumetta Server\r\n"));
  EXPECT_EQ(r.Body, "gone");
}

// Past the first line, Status is looked for in the whole header block and
// taken out of it; a Location alone is a redirect.
TEST_P(CgiTest, StatusFromAnywhereInTheHeaderBlock) {
  const struct {
    const char* out;
    std::string reply;
  } cases[] = {
      {"X-A: 1\\r\\nSet-Cookie: a=b\\r\\nStatus: 404 Not Found\\r\\n\\r\\nbody",
       "HTTP/1.1 404 Not Found\r\nX-A: 1\r\nSet-Cookie: a=b\r\n\r\nbody"},
      {"Location: /next\\r\\n\\r\\n", "HTTP/1.1 302 Found\r\nLocation: /next\r\n\r\n"},
      {"Location: /n\\nstatus:   301 Moved\\n\\n", "HTTP/1.1 301 Moved\r\nLocation: /n\n\n"},
      // A Status line in the body is body.
      {"X-A: 1\\n\\nStatus: 500 x", "HTTP/1.1 200 OK\r\nX-A: 1\n\nStatus: 500 x"},
      // A block that never ends is relayed as it comes, under 200.
      {"X-A: 1\\r\\nStatus: 404 Not Found\\r\\n", "HTTP/1.1 200 OK\r\nX-A: 1\r\nStatus: 404 Not Found\r\n"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.out);
    Fake("st", std::string("print \"") + c.out + "\"");
    std::string raw = Get("/page.st").Raw;
    size_t date = raw.find("\r\nDate: ");
    ASSERT_NE(date, npos);
    // Our Server and Date lines sit right after the status line.
    EXPECT_EQ(raw.substr(0, raw.find("\r\n") + 2) + raw.substr(raw.find("\r\n", date + 2) + 2), c.reply);
    Srv = Start();
    ASSERT_NE(Srv, nullptr);
  }
}

TEST_P(CgiTest, SessionAndCookieAcrossRequests) {
  SKIP_WITHOUT_PHP();
  Reply first = Get("/session.php");
  EXPECT_EQ(first.Body, "n=1;cookie=");
  std::string cookies;
  for (size_t at = 0; (at = first.Raw.find("\r\nSet-Cookie: ", at)) != npos; at += 14)
    cookies += first.Raw.substr(at + 14, first.Raw.find_first_of(";\r", at + 14) - at - 14) + "; ";
  ASSERT_NE(cookies.find("PHPSESSID="), npos);
  EXPECT_EQ(Get("/session.php", "Cookie: " + cookies + "\r\n").Body, "n=2;cookie=oat");
}

TEST_P(CgiTest, TimeOutEndsTheInterpreterAndKeepsWhatItWrote) {
  CgiTimeOut = 1;  // the request threads read it: set before they exist
  Srv = Start();
  ASSERT_NE(Srv, nullptr);
  // Without PHP the helper writes the same page and then sleeps as long.
  if (!HavePhp()) Fake("slow", "slow");
  uint64_t start = PlMonotonicMs();
  Reply r = Get(HavePhp() ? "/slow.php" : "/page.slow");
  EXPECT_LT(PlMonotonicMs() - start, 10000u);
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  EXPECT_EQ(r.Body, "partial\n");
}

TEST_P(CgiTest, MissingScriptGives404AndStartsNothing) {
  std::string marker = Scratch.Join("started");
  ASSERT_NE(Srv->Srv().Vadd("mk", PipeHelperPath().c_str(), ("cwd \"" + marker + "\"").c_str(), HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED), nullptr);
  WriteFile(Home + "/page.mk", "");
  for (const char* target : {"/nothing-here.mk", "/nothing-here.php"})
    EXPECT_EQ(Get(target).StatusLine.substr(0, 12), "HTTP/1.1 404") << target;
  EXPECT_FALSE(fs::exists(marker));
  Get("/page.mk");
  EXPECT_TRUE(fs::exists(marker));  // the same set-up does start it for a real file
}

TEST_P(CgiTest, ConcurrentRequests) {
  // Without PHP the helper answers with its environment: each reply must
  // carry its own request's query.
  bool php = HavePhp();
  if (!php) Fake("echo", "cgi-echo");
  std::vector<std::thread> threads;
  std::vector<std::string> bodies(20);
  for (int i = 0; i < 20; i++)
    threads.emplace_back([this, i, php, &bodies] {
      bodies[i] = Get((php ? "/echo.php?id=" : "/page.echo?id=") + std::to_string(i)).Body;
    });
  for (auto& t : threads) t.join();
  for (int i = 0; i < 20; i++) {
    std::string id = std::to_string(i);
    if (php) EXPECT_EQ(bodies[i], "id=" + id + ";len=" + std::to_string(1000 * i));
    else EXPECT_NE(("\n" + bodies[i]).find("\nQUERY_STRING=id=" + id + "\n"), npos) << i;
  }
}

TEST_P(CgiTest, QueryWithoutEqualsNeverBecomesOptions) {
  Fake("argv", "args -x");
  for (const char* q : {"?-s", "?-d+allow_url_include%3d1", "?%2ds", "?+-s", "?-n+-c+/etc/passwd"}) {
    SCOPED_TRACE(q);
    std::string fake = Get(std::string("/page.argv") + q).Raw;
    EXPECT_TRUE(std::count(fake.begin(), fake.end(), '[') == 1 && fake.find("[-x]\n") != npos) << fake;
    // php-cgi may refuse the page but must never show its source or turn options on.
    if (!HavePhp()) continue;
    Reply php = Get(std::string("/source.php") + q);
    EXPECT_FALSE(php.Has("SECRET-SOURCE-MARKER") || php.Has("include-on")) << php.Raw;
  }
  if (!HavePhp()) return;
  EXPECT_EQ(Get("/source.php?x=-s").Body, "ran:x=-s:include-off");
  // The player's own settings hold whatever the query: the script runs.
  for (const char* q : {"-s", "-n", "-s+-n"}) EXPECT_EQ(Get(std::string("/source.php?") + q).Body, std::string("ran:") + q + ":include-off");
}

TEST_P(CgiTest, ScriptsOutsideTheHomeDirectoryNeverRun) {
  fs::create_directories(Scratch.Join("elsewhere"));
  fs::create_directories(Home + "/sub");
  WriteFile(Scratch.Join("outside.php"), "<?php echo 'OUTSIDE-RAN';");
  WriteFile(Scratch.Join("elsewhere/x.php"), "<?php echo 'OUTSIDE-RAN';");
  if (!TestOnWindows()) {  // creating links there needs a privilege tests do not have
    fs::create_symlink(Scratch.Join("outside.php"), Home + "/link.php");
    fs::create_directory_symlink(Scratch.Join("elsewhere"), Home + "/linkdir");
  }
  for (const char* target : {"/../outside.php", "/%2e%2e/outside.php", "/%2E%2E%2Foutside.php", "/./../outside.php",
                             "/sub/../../outside.php", "/sub/%2e%2e/%2e%2e/outside.php", "/..%2foutside.php",
                             "/link.php", "/linkdir/x.php"}) {
    SCOPED_TRACE(target);
    EXPECT_FALSE(Get(target).Has("OUTSIDE-RAN"));
    EXPECT_FALSE(Post(Srv->Port(), target, "application/x-www-form-urlencoded", "a=1").Has("OUTSIDE-RAN"));
  }
  if (!HavePhp()) return;
  EXPECT_EQ(Get("/sub/../hello.php").Body, "Hello nobody\n");  // staying inside is fine
}

// An interpreter that can't be started leaves the client without a reply;
// the log says why, once.
TEST(CgiFailure, InterpreterThatCannotStartIsLogged) {
  testsup::TempDir home;
  home.Write("page.x", "");
  std::string notAProgram = home.Write("not-a-program", "plain text");
  testsup::TestServer server(home.Path());
  server.Srv().OnCgi = CgiWrapper;
  ASSERT_NE(server.Srv().Vadd("x", notAProgram.c_str(), "", HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED), nullptr);
  server.Start();
  EXPECT_EQ(testsup::Exchange(server.Port(), "GET /page.x HTTP/1.1\r\n\r\n"), "");
  ASSERT_TRUE(server.WaitLog("Request \"/page.x\" ended by error"));
  std::string log = server.LogText();
  EXPECT_EQ(log.find("ended by error", log.find("ended by error") + 1), std::string::npos) << log;
}

// A script that ends itself, or whose interpreter dies mid-page: the client
// gets what was written, and the next request is served as usual.
TEST_P(CgiTest, ScriptsThatExitOrKillTheirInterpreter) {
  SKIP_WITHOUT_PHP();
  WriteFile(Home + "/exit.php", "<?php echo 'before'; exit(3); echo 'after';");
  WriteFile(Home + "/crash.php",
                   "<?php while (ob_get_level()) ob_end_flush(); echo 'dying'; flush(); posix_kill(getmypid(), 9);");
  for (int round = 0; round < 3; round++) {
    EXPECT_EQ(Get("/exit.php").Body, "before");
    Reply crashed = Get("/crash.php");
    EXPECT_EQ(crashed.StatusLine, "HTTP/1.1 200 OK");
    EXPECT_EQ(crashed.Body, "dying");
    EXPECT_EQ(Get("/hello.php?name=x").Body, "Hello x\n");
  }
}

// Fifty clients at once share the two workers and each gets its own reply.
TEST_P(CgiTest, FiftyConcurrentRequestsOnTwoWorkers) {
  if (!Pooled()) GTEST_SKIP() << "workers only";
  SKIP_WITHOUT_PHP();
  WriteFile(Home + "/pid.php", "<?php echo $_GET['id'], ':', getmypid();");
  Pool.WaitForWorkerMs = 60000;  // every one waits its turn, however slow the build
  std::vector<std::thread> threads;
  std::vector<std::string> bodies(50);
  for (int i = 0; i < 50; i++)
    threads.emplace_back([this, i, &bodies] { bodies[i] = Get("/pid.php?id=" + std::to_string(i)).Body; });
  for (auto& t : threads) t.join();
  std::vector<std::string> pids;
  for (int i = 0; i < 50; i++) {
    std::string prefix = std::to_string(i) + ":";
    ASSERT_EQ(bodies[i].rfind(prefix, 0), 0u) << bodies[i];
    pids.push_back(bodies[i].substr(prefix.size()));
  }
  std::sort(pids.begin(), pids.end());
  EXPECT_EQ(std::unique(pids.begin(), pids.end()) - pids.begin(), 2);
}

TEST_P(CgiTest, NoInterpreterLeftOnceTheServerStops) {
  if (!Pooled()) GTEST_SKIP() << "workers only";
  SKIP_WITHOUT_PHP();
  ASSERT_EQ(Get("/hello.php?name=x").Body, "Hello x\n");
  std::vector<long long> pids = Pool.WorkerPids();
  ASSERT_EQ(pids.size(), 2u);
  Srv.reset();
  CgiUsePool(nullptr, nullptr);
  Pool.Stop();
  for (long long pid : pids) EXPECT_FALSE(ProcessAlive(pid)) << pid;
}

// Redirects as PHP makes them: a Location alone, or with a status of its own.
TEST_P(CgiTest, RedirectsFromScripts) {
  SKIP_WITHOUT_PHP();
  WriteFile(Home + "/go.php",
                   "<?php if (isset($_GET['perm'])) header('Location: /moved', true, 301);"
                   " else header('Location: /next?a=1'); echo 'away';");
  Reply r = Get("/go.php");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 302 Found");
  EXPECT_TRUE(r.Has("\r\nLocation: /next?a=1\r\n")) << r.Raw;
  r = Get("/go.php?perm=1");
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 301 Moved Permanently");
  EXPECT_TRUE(r.Has("\r\nLocation: /moved\r\n")) << r.Raw;
  EXPECT_EQ(r.Body, "away");
}

// The gateway without PHP: the helper as interpreter answers with a header,
// its environment and the body it read, so both arrive as the child saw them.
TEST_P(CgiTest, InterpreterGetsTheRequestEnvironmentAndTheExactBody) {
  Fake("echo", "cgi-echo");
  Srv->Srv().SetMaxPostLen(1 << 20);
  std::string body;
  for (int i = 0; i < 70000; i++) body += (char)(i * 13 + i / 251);
  Reply r = Post(Srv->Port(), "/page.echo?q=1", "application/octet-stream", body);
  EXPECT_EQ(r.StatusLine, "HTTP/1.1 200 OK");
  size_t end = r.Body.find("\n\n");
  ASSERT_NE(end, npos) << r.Raw.substr(0, 300);
  std::string env = "\n" + r.Body.substr(0, end + 1);
  for (std::string var : std::vector<std::string>{"CONTENT_LENGTH=70000", "CONTENT_TYPE=application/octet-stream", "QUERY_STRING=q=1",
                          "GATEWAY_INTERFACE=CGI/1.1", "REQUEST_METHOD=POST", "REQUEST_URI=/page.echo?q=1",
                          "SCRIPT_NAME=/page.echo", "SERVER_PORT=" + std::to_string(Srv->Port())})
    EXPECT_NE(env.find("\n" + var + "\n"), npos) << var;
  EXPECT_TRUE(r.Body.substr(end + 2) == body);
}
