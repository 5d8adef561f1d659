// ctest-labels: threads
// The PHP worker pool against the real php-cgi: requests, environment,
// bodies, scripts that exit, crash or hang, concurrency, and that no worker
// is left behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cpipestream.h"
#include "phppool.h"
#include "pl_process.h"
#include "test_servers.h"

using namespace testsup;

namespace {

const char kServerDump[] =
    "<?php\n"
    "// The variables of the request, without what PHP adds by itself and\n"
    "// the request limit in a worker's own environment.\n"
    "$own = ['PHP_SELF', 'REQUEST_TIME', 'REQUEST_TIME_FLOAT', 'FCGI_ROLE', 'PHP_FCGI_MAX_REQUESTS', 'argv', 'argc'];\n"
    "foreach ($_SERVER as $k => $v) if (!in_array($k, $own, true)) echo $k, '=', $v, \"\\n\";\n";
const char kEchoQuery[] = "<?php echo 'q=', $_GET['n'] ?? '', ';pid=', getmypid();";
const char kExit[] = "<?php echo 'before'; exit(3); echo 'after';";
const char kKillSelf[] = "<?php while (ob_get_level()) ob_end_flush(); echo 'dying'; flush(); posix_kill(getmypid(), 9);";
const char kStderr[] = "<?php error_log(\"first\\nsecond\"); echo 'ok';";
const char kRawBody[] = "<?php echo file_get_contents('php://input');";

struct PhpRun {
  std::string Out;
  std::vector<std::string> Errors;
  PhpRunResult Result = PHP_RUN_NO_WORKER;
};

void CollectError(void* context, const char* line, int len) {
  static_cast<PhpRun*>(context)->Errors.emplace_back(line, (size_t)len);
}

class PhpPoolTest : public ::testing::Test {
 protected:
  TempDir Dir;
  PhpPool Pool;

  void SetUp() override {
    std::string cmd = PhpCommandLine();
    if (cmd.empty()) GTEST_SKIP() << "php-cgi is not installed";
    std::filesystem::copy(LUMETTA_SOURCE_DIR "/tests/data/php", Dir.Path(), std::filesystem::copy_options::recursive);
    for (auto& [name, text] : std::vector<std::pair<std::string, std::string>>{
             {"server.php", kServerDump}, {"query.php", kEchoQuery}, {"exit.php", kExit},
             {"killself.php", kKillSelf}, {"stderr.php", kStderr}, {"raw.php", kRawBody}})
      WriteFile(Dir.Join(name), text);
    CStrList options;
    AddPhpOptions(options);
    ASSERT_TRUE(Pool.Start(cmd.c_str(), 2, &options)) << Pool.FailureText().c_str();
  }

  void Env(CStrList& env, const std::string& script, const std::string& query = "") {
    env.Add(("SCRIPT_FILENAME=" + Dir.Join(script)).c_str());
    env.Add(("QUERY_STRING=" + query).c_str());
    env.Add("REQUEST_METHOD=GET");
  }

  PhpRun Exec(const CStrList& env, const std::string& body = "") {
    PhpRun run;
    PhpRequest req(Pool, CollectError, &run);
    if (req.Send(env, body.data(), body.size())) {
      char buf[4096];
      int n;
      while ((n = req.Read(buf, sizeof buf)) > 0) run.Out.append(buf, (size_t)n);
    }
    run.Result = req.Result();
    return run;
  }

  PhpRun Get(const std::string& script, const std::string& query = "") {
    CStrList env;
    Env(env, script, query);
    return Exec(env);
  }

  std::vector<long long> WaitForWorkers(size_t count) {
    uint64_t deadline = PlMonotonicMs() + 5000;
    std::vector<long long> pids;
    while ((pids = Pool.WorkerPids()).size() != count && PlMonotonicMs() < deadline) PlSleepMs(10);
    EXPECT_EQ(pids.size(), count);
    return pids;
  }

  static std::string Body(const PhpRun& r) {
    size_t at = r.Out.find("\r\n\r\n");
    return at == std::string::npos ? r.Out : r.Out.substr(at + 4);
  }
};

TEST_F(PhpPoolTest, ManyRequestsOnTheSameWorkers) {
  std::vector<long long> pids = Pool.WorkerPids();
  ASSERT_EQ(pids.size(), 2u);
  std::set<long long> seen;
  for (int i = 0; i < 300; i++) {
    PhpRun r = Get("query.php", "n=" + std::to_string(i));
    ASSERT_EQ(r.Result, PHP_RUN_DONE);
    std::string body = Body(r);
    ASSERT_EQ(body.substr(0, body.find(';')), "q=" + std::to_string(i));
    long long pid = std::stoll(body.substr(body.find("pid=") + 4));
    seen.insert(pid);
    // Under wine the script's process is the host's interpreter behind
    // the worker, numbered by the host.
    if (!TestUnderWine()) {
      EXPECT_NE(std::find(pids.begin(), pids.end(), pid), pids.end());
    }
  }
  EXPECT_LE(seen.size(), pids.size());
  EXPECT_EQ(Pool.WorkerPids(), pids);
}

// Over CGI php-cgi reads a query without '=' as its own command-line
// options; a worker got its options at start and a query is only data.
TEST_F(PhpPoolTest, QueryCannotActAsInterpreterOptions) {
  for (const char* query : {"-s", "-d+cgi.force_redirect%3d1", "-n"}) {
    PhpRun r = Get("query.php", query);
    EXPECT_EQ(r.Result, PHP_RUN_DONE) << query;
    EXPECT_EQ(Body(r).rfind("q=;pid=", 0), 0u) << query << ": " << r.Out;
  }
}

TEST_F(PhpPoolTest, ScriptSeesExactlyTheVariablesSentInOrder) {
  CStrList env;
  std::string lines;
  CStrList options;  // the workers' own environment comes first
  AddPhpOptions(options);
  for (int i = 0; i < options.Count(); i++) lines += VariableSeenByPhp(options[i]->c_str()) + "\n";
  std::string longValue(300, 'v');  // lengths past 127 take four bytes
  for (std::string entry : {"SCRIPT_FILENAME=" + Dir.Join("server.php"), std::string("QUERY_STRING="),
                            std::string("HTTP_COOKIE=a=1; b=2"), std::string("REQUEST_METHOD=GET"),
                            "HTTP_USER_AGENT=" + longValue, std::string("PATH_INFO="),
                            std::string("SERVER_SOFTWARE=Lumetta/1.0.3 (Windows)"), std::string("Z_LAST=end")}) {
    env.Add(entry.c_str());
    lines += VariableSeenByPhp(entry) + "\n";
  }
  PhpRun r = Exec(env);
  ASSERT_EQ(r.Result, PHP_RUN_DONE);
  EXPECT_EQ(WithoutSystemVariables(Body(r)), lines);
}

// The same variables reach a script run the old way, one php-cgi over CGI
// with them as its environment, and through a worker.
TEST_F(PhpPoolTest, SameVariablesAsOneInterpreterPerRequest) {
  CStrList env;
  AddPhpOptions(env);  // the workers have them in their own environment
  for (const char* entry : {"CONTENT_LENGTH=3", "CONTENT_TYPE=text/plain", "QUERY_STRING=a=1&b", "GATEWAY_INTERFACE=CGI/1.1",
                            "HTTP_COOKIE=k=v", "HTTPS=", "PATH_INFO=", "PATH_TRANSLATED=", "REQUEST_METHOD=POST",
                            "REQUEST_URI=/server.php", "SERVER_PORT=8080", "HTTP_X_EXTRA=1"})
    env.Add(entry);
  env.Add(("SCRIPT_FILENAME=" + Dir.Join("server.php")).c_str());
  CPipeStream cgi;
  cgi.Set();
  cgi.Open(PhpCommandLine().c_str(), Dir.Path().c_str(), &env, CPIPE_BINARY | CPIPE_READ | CPIPE_WRITE);
  cgi.Write("abc", 3);
  PhpRun old;
  char buf[4096];
  unsigned n;
  while ((n = cgi.Read(buf, sizeof buf)) > 0) old.Out.append(buf, n);
  cgi.Wait();
  PhpRun pooled = Exec(env, "abc");
  EXPECT_EQ(pooled.Result, PHP_RUN_DONE);
  EXPECT_FALSE(Body(old).empty());
  EXPECT_EQ(WithoutSystemVariables(Body(pooled)), WithoutSystemVariables(Body(old)));
}

TEST_F(PhpPoolTest, BodiesArriveByteExact) {
  std::string file;
  for (size_t i = 0; i < 3 * 1024 * 1024 + 17; i++) file += (char)((i * 7919 + i / 251) & 0xFF);
  const std::string boundary = "----b0undary";
  std::string body = "--" + boundary + "\r\nContent-Disposition: form-data; name=\"note\"\r\n\r\nhi\r\n--" + boundary +
                     "\r\nContent-Disposition: form-data; name=\"doc\"; filename=\"blob.bin\"\r\n"
                     "Content-Type: application/octet-stream\r\n\r\n" +
                     file + "\r\n--" + boundary + "--\r\n";
  struct Case {
    const char* Script;
    std::string Type, Expected;
  } cases[] = {
      {"upload.php", "multipart/form-data; boundary=" + boundary,
       "blob.bin\n" + std::to_string(file.size()) + "\nhi\n" + file},
      {"raw.php", "application/octet-stream", body},
  };
  for (const Case& c : cases) {
    CStrList env;
    env.Add(("SCRIPT_FILENAME=" + Dir.Join(c.Script)).c_str());
    env.Add("REQUEST_METHOD=POST");
    env.Add(("CONTENT_LENGTH=" + std::to_string(body.size())).c_str());
    env.Add(("CONTENT_TYPE=" + c.Type).c_str());
    PhpRun r = Exec(env, body);
    EXPECT_EQ(r.Result, PHP_RUN_DONE) << c.Script;
    EXPECT_TRUE(Body(r) == c.Expected) << c.Script << ": " << Body(r).size() << " bytes";
  }
}

TEST_F(PhpPoolTest, ExitAndErrorStream) {
  PhpRun r = Get("exit.php");
  EXPECT_EQ(r.Result, PHP_RUN_DONE);
  EXPECT_EQ(Body(r), "before");
  r = Get("stderr.php");
  EXPECT_EQ(r.Result, PHP_RUN_DONE);
  EXPECT_EQ(Body(r), "ok");
  ASSERT_EQ(r.Errors.size(), 2u);
  EXPECT_NE(r.Errors[0].find("first"), std::string::npos);
  EXPECT_EQ(r.Errors[1], "second");
}

TEST_F(PhpPoolTest, WorkerThatKillsItselfIsReplaced) {
  std::vector<long long> before = Pool.WorkerPids();
  PhpRun r = Get("killself.php");
  EXPECT_EQ(r.Result, PHP_RUN_WORKER_LOST);
  EXPECT_NE(r.Out.find("dying"), std::string::npos);
  for (int i = 0; i < 10; i++) EXPECT_EQ(Get("query.php", "n=x").Result, PHP_RUN_DONE);
  // The supervisor notices the death on its own rounds; requests meanwhile
  // go to the live worker.
  std::vector<long long> after;
  const uint64_t deadline = PlMonotonicMs() + testsup::ReplyBoundMs(5000);
  while (((after = Pool.WorkerPids()) == before || after.size() != 2) && PlMonotonicMs() < deadline)
    PlSleepMs(10);
  EXPECT_EQ(after.size(), 2u);
  EXPECT_NE(after, before);
}

TEST_F(PhpPoolTest, IdleWorkerKilledFromOutsideIsReplaced) {
  // Once a killed worker is gone, requests never see it: they go to the
  // live one, or wait for the replacement.
  for (long long pid : Pool.WorkerPids()) PlProcessKillId(pid);
  for (long long pid : Pool.WorkerPids())
    while (ProcessAlive(pid)) PlSleepMs(5);
  for (int i = 0; i < 5; i++) EXPECT_EQ(Get("query.php", "n=1").Result, PHP_RUN_DONE) << i;
}

// Workers keep their connection open between requests. Whatever happens
// to it while it is idle, the next request is answered, and no request
// reaches a worker twice.
TEST_F(PhpPoolTest, KeptConnectionsOutliveNothingTheyShouldNot) {
  auto pidOf = [](const PhpRun& r) { return std::stoll(r.Out.substr(r.Out.find("pid=") + 4)); };
  struct Case {
    const char* Name;
    std::function<void()> BetweenRequests;
  } cases[] = {
      {"nothing", [] {}},
      // Killed while idle: its connection is closed under the pool's feet.
      {"both workers killed",
       [this] {
         std::vector<long long> pids = Pool.WorkerPids();
         for (long long pid : pids) PlProcessKillId(pid);
         for (long long pid : pids)
           while (ProcessAlive(pid)) PlSleepMs(5);
       }},
      // A script that never reads the body it was sent: the worker drops
      // the rest itself, and the connection is fit for the next request.
      {"unread upload",
       [this] {
         CStrList env;
         Env(env, "query.php", "n=post");
         env.Add("REQUEST_METHOD=POST");
         env.Add("CONTENT_TYPE=application/octet-stream");
         std::string body(300000, 'b');
         env.Add(("CONTENT_LENGTH=" + std::to_string(body.size())).c_str());
         EXPECT_EQ(Exec(env, body).Result, PHP_RUN_DONE);
       }},
  };
  for (const Case& c : cases) {
    for (int i = 0; i < 4; i++) ASSERT_EQ(Get("query.php", "n=warm").Result, PHP_RUN_DONE) << c.Name;
    c.BetweenRequests();
    for (int i = 0; i < 6; i++) {
      PhpRun r = Get("query.php", "n=" + std::to_string(i));
      ASSERT_EQ(r.Result, PHP_RUN_DONE) << c.Name << " " << i;
      EXPECT_EQ(Body(r).substr(0, Body(r).find(';')), "q=" + std::to_string(i)) << c.Name;
      // Under wine the script runs in the host's interpreter behind the
      // worker, numbered by the host.
      if (!TestUnderWine()) {
        EXPECT_TRUE(ProcessAlive(pidOf(r))) << c.Name;
      }
    }
  }
}

// A worker that ends the connection and itself after each request (its own
// request limit set to one): each next request goes to a new connection on
// a live worker, never into the closed one.
TEST(PhpPoolKept, WorkerThatLeavesAfterEachRequest) {
  std::string cmd = PhpCommandLine();
  if (cmd.empty()) GTEST_SKIP() << "php-cgi is not installed";
  if (TestUnderWine()) GTEST_SKIP() << "under wine the worker is the stand-in, which outlives the host interpreter that leaves";
  TempDir dir;
  dir.Write("pid.php", "<?php echo getmypid();");
  CStrList env;
  AddPhpOptions(env);
  env.Add("PHP_FCGI_MAX_REQUESTS=1");  // ahead of the pool's own, so php-cgi takes it
  PhpPool pool;
  pool.WaitForWorkerMs = 60000;
  ASSERT_TRUE(pool.Start(cmd.c_str(), 2, &env)) << pool.FailureText().c_str();
  std::vector<long long> seen;
  for (int i = 0; i < 5; i++) {
    CStrList vars;
    vars.Add(("SCRIPT_FILENAME=" + dir.Join("pid.php")).c_str());
    vars.Add("REQUEST_METHOD=GET");
    PhpRequest req(pool);
    ASSERT_TRUE(req.Send(vars, nullptr, 0)) << i;
    std::string out;
    char buf[256];
    int n;
    while ((n = req.Read(buf, sizeof buf)) > 0) out.append(buf, (size_t)n);
    ASSERT_EQ(req.Result(), PHP_RUN_DONE) << i;
    long long pid = std::stoll(out.substr(out.find("\r\n\r\n") + 4));
    EXPECT_EQ(std::find(seen.begin(), seen.end(), pid), seen.end()) << "worker " << pid << " served twice";
    seen.push_back(pid);
    while (ProcessAlive(pid)) PlSleepMs(5);
  }
}

TEST_F(PhpPoolTest, ScriptPastTheTimeOutIsStopped) {
  Pool.TimeOutSec = 1;
  std::vector<long long> before = Pool.WorkerPids();
  uint64_t start = PlMonotonicMs();
  PhpRun r = Get("slow.php");
  uint64_t took = PlMonotonicMs() - start;
  EXPECT_EQ(r.Result, PHP_RUN_TIMED_OUT);
  EXPECT_NE(r.Out.find("partial"), std::string::npos);
  EXPECT_EQ(r.Out.find("late"), std::string::npos);
  EXPECT_LT(took, 5000u);
  Pool.TimeOutSec = 600;
  EXPECT_EQ(Get("query.php", "n=2").Result, PHP_RUN_DONE);
  auto alive = [&] {
    int n = 0;
    for (long long pid : before) n += ProcessAlive(pid);
    return n;
  };
  uint64_t deadline = PlMonotonicMs() + 3000;
  while (alive() > 1 && PlMonotonicMs() < deadline) PlSleepMs(10);
  EXPECT_EQ(alive(), 1);  // the stuck one is gone, the other one serves on
}

TEST_F(PhpPoolTest, FiftyConcurrentRequestsOnTwoWorkers) {
  Pool.WaitForWorkerMs = 60000;  // every one waits its turn, however slow the build
  std::atomic<int> right{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 50; i++)
    threads.emplace_back([this, i, &right] {
      PhpRun r = Get("query.php", "n=" + std::to_string(i));
      if (r.Result == PHP_RUN_DONE && Body(r).rfind("q=" + std::to_string(i) + ";", 0) == 0) right++;
    });
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(right, 50);
}

TEST_F(PhpPoolTest, WorkersAreReplacedAfterTheirShareOfRequests) {
  // A warm successor takes over; no request is lost on the way, php-cgi's
  // own limit (500 unless told) included.
  Pool.Stop();
  Pool.RequestsPerWorker = 300;
  CStrList options;
  AddPhpOptions(options);
  ASSERT_TRUE(Pool.Start(PhpCommandLine().c_str(), 2, &options));
  std::vector<long long> before = Pool.WorkerPids();
  for (int i = 0; i < 1300; i++) ASSERT_EQ(Get("query.php", "n=1").Result, PHP_RUN_DONE) << i;
  std::vector<long long> after = Pool.WorkerPids();
  for (long long pid : before) EXPECT_EQ(std::find(after.begin(), after.end(), pid), after.end());
}

TEST_F(PhpPoolTest, StopLeavesNoWorker) {
  std::vector<long long> pids = Pool.WorkerPids();
  ASSERT_EQ(pids.size(), 2u);
  for (long long pid : pids) EXPECT_TRUE(ProcessAlive(pid));
  Pool.Stop();
  for (long long pid : pids) EXPECT_FALSE(ProcessAlive(pid)) << pid;
  EXPECT_FALSE(Pool.IsRunning());
  EXPECT_EQ(Get("query.php").Result, PHP_RUN_NO_WORKER);
}

TEST_F(PhpPoolTest, NoWorkerOutlivesAKilledPlayer) {
  CPipeStream helper;
  helper.Set();
  std::string cmd = "\"" + PoolHelperPath() + "\" \"" + PhpCommandLine() + "\" 2";
  // The inner quotes of the php command line are escaped for the splitter.
  std::string inner = PhpCommandLine();
  std::string escaped;
  for (char c : inner) escaped += c == '"' ? std::string("\\\"") : std::string(1, c);
  cmd = "\"" + PoolHelperPath() + "\" \"" + escaped + "\" 2";
  // A killed player leaves its socket directory behind; let it be ours.
  CStrList env;
  env.Add(("TMPDIR=" + Dir.Path()).c_str());
  helper.Open(cmd.c_str(), nullptr, &env, CPIPE_BINARY | CPIPE_READ);
  CStr line;
  helper.Gets(line);
  std::vector<long long> pids;
  for (const char* p = line.c_str(); *p;) {
    char* end;
    long long pid = strtoll(p, &end, 10);
    if (end == p) break;
    pids.push_back(pid);
    p = end;
  }
  ASSERT_EQ(pids.size(), 2u) << line.c_str();
  helper.Kill();  // SIGKILL: nothing of the helper's own code runs
  uint64_t deadline = PlMonotonicMs() + 5000;
  bool anyAlive = true;
  while (anyAlive && PlMonotonicMs() < deadline) {
    anyAlive = false;
    for (long long pid : pids) anyAlive = anyAlive || ProcessAlive(pid);
    if (anyAlive) PlSleepMs(20);
  }
  EXPECT_FALSE(anyAlive);
}

// When workers can no longer be started, requests are turned away at once
// (the caller runs them the old way) instead of waiting for a worker.
TEST(PhpPoolStart, GivesUpWhenWorkersCannotBeReplaced) {
  std::string cmd = PhpCommandLine();
  if (cmd.empty()) GTEST_SKIP() << "php-cgi is not installed";
  TempDir dir;
  std::string program = cmd.substr(1, cmd.find('"', 1) - 1);
  std::string copy = CopyInterpreter(program, dir.Path());
  WriteFile(dir.Join("page.php"), "<?php echo 'up';");
  PhpPool pool;
  ASSERT_TRUE(pool.Start(("\"" + copy + "\"" + cmd.substr(cmd.find('"', 1) + 1)).c_str(), 1));
  std::filesystem::rename(copy, copy + ".gone");  // Windows keeps a running program's file
  for (long long pid : pool.WorkerPids()) PlProcessKillId(pid);
  uint64_t start = PlMonotonicMs();
  CStrList env;
  env.Add(("SCRIPT_FILENAME=" + dir.Join("page.php")).c_str());
  auto run = [&] {
    PhpRequest req(pool);
    req.Send(env, nullptr, 0);
    char buf[64];
    while (req.Read(buf, sizeof buf) > 0) {
    }
    return req.Result();
  };
  while (pool.IsRunning() && PlMonotonicMs() - start < 5000) run();
  EXPECT_LT(PlMonotonicMs() - start, 3000u);
  EXPECT_FALSE(pool.IsRunning());
  start = PlMonotonicMs();
  EXPECT_EQ(run(), PHP_RUN_NO_WORKER);
  EXPECT_LT(PlMonotonicMs() - start, 100u);
  EXPECT_FALSE(pool.FailureText().IsEmpty());
}

// An interpreter that only speaks CGI, or none at all: the pool says so and
// leaves nothing running, and the caller keeps one interpreter per request.
TEST(PhpPoolStart, RefusesWhatIsNotAFastCgiApplication) {
  TempDir dir;
  WriteFile(dir.Join("cgi-only.sh"), "#!/bin/sh\nprintf 'Content-Type: text/plain\\r\\n\\r\\nhello'\n");
  std::filesystem::permissions(dir.Join("cgi-only.sh"), std::filesystem::perms::owner_all);
  WriteFile(dir.Join("hangs.sh"), "#!/bin/sh\nexec sleep 30\n");
  std::filesystem::permissions(dir.Join("hangs.sh"), std::filesystem::perms::owner_all);
  for (std::string cmd : {dir.Join("cgi-only.sh"), dir.Join("hangs.sh"), dir.Join("absent")}) {
    PhpPool pool;
    pool.ProbeTimeOutSec = 1;
    uint64_t start = PlMonotonicMs();
    EXPECT_FALSE(pool.Start(cmd.c_str(), 2)) << cmd;
    EXPECT_LT(PlMonotonicMs() - start, 4000u) << cmd;
    EXPECT_FALSE(pool.FailureText().IsEmpty());
    EXPECT_TRUE(pool.WorkerPids().empty());
    EXPECT_FALSE(pool.IsRunning());
  }
}

}  // namespace

// A worker's endpoint is reachable only by whoever knows its name: on
// Windows a pipe name no other program can guess, on POSIX a path in our
// private directory. Before a worker serves it, nobody answers there, at
// once (the pool's probe retries until its worker is up).
TEST(LocalEndpoint, NamesCannotBeGuessedAndNobodyAnswersBeforeTheWorker) {
  TempDir dir;
  std::string a = PlLocalEndpointPath(dir.Path(), "w0-1"), b = PlLocalEndpointPath(dir.Path(), "w0-1");
  if (TestOnWindows()) {
    EXPECT_EQ(a.rfind("\\\\.\\pipe\\lumetta-", 0), 0u) << a;
    EXPECT_NE(a, b);
  } else {
    EXPECT_EQ(a, dir.Join("w0-1"));
  }
  uint64_t start = PlMonotonicMs();
  EXPECT_EQ(PlSockLocalConnect(a.c_str()), PL_NO_SOCKET);
  EXPECT_LT(PlMonotonicMs() - start, 1000u);
}
