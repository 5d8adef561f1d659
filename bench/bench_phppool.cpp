// The PHP worker pool alone, without the HTTP server in front: N client
// threads run the benchmark page through the pool back to back, and the
// same page through one php-cgi per request for contrast. Measures what
// the pool adds per request, not what a browser sees (bench/bench_php.sh).
// Usage: bench_phppool [workers] [clients] [seconds]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "cgiwrapper.h"
#include "cpipestream.h"
#include "phppool.h"
#include "pl_fs.h"
#include "pl_thread.h"

namespace {

const char kPage[] =
    "<?php\n$items = [];\nfor ($i = 0; $i < 20; $i++) $items[] = \"<li>item $i</li>\";\n"
    "echo \"<!doctype html><title>bench</title><ul>\", implode('', $items), \"</ul>\\n\";\n";

struct Figures {
  long Requests = 0;
  std::vector<double> LatencyMs;
};

void FillEnv(CStrList& env, const std::string& script) {
  env.Add(("SCRIPT_FILENAME=" + script).c_str());
  env.Add("REQUEST_METHOD=GET");
  env.Add("QUERY_STRING=");
  env.Add("GATEWAY_INTERFACE=CGI/1.1");
}

bool ThroughPool(PhpPool& pool, const std::string& script) {
  CStrList env;
  FillEnv(env, script);
  PhpRequest req(pool);
  if (!req.Send(env, nullptr, 0)) return false;
  char buf[4096];
  while (req.Read(buf, sizeof buf) > 0) {
  }
  return req.Result() == PHP_RUN_DONE;
}

bool PerRequest(const std::string& cmd, const std::string& script) {
  CStrList env;
  FillEnv(env, script);
  CPipeStream pipe;
  pipe.Set();
  pipe.Open(cmd.c_str(), nullptr, &env, CPIPE_BINARY | CPIPE_READ);
  char buf[4096];
  while (pipe.Read(buf, sizeof buf) > 0) {
  }
  pipe.Wait();
  return true;
}

template <class Fn>
Figures Measure(int clients, int seconds, Fn run) {
  std::vector<Figures> per((size_t)clients);
  uint64_t stop = PlMonotonicMs() + (uint64_t)seconds * 1000;
  std::vector<std::thread> threads;
  for (int c = 0; c < clients; c++)
    threads.emplace_back([&, c] {
      while (PlMonotonicMs() < stop) {
        auto start = std::chrono::steady_clock::now();
        if (!run()) break;
        per[(size_t)c].LatencyMs.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
        per[(size_t)c].Requests++;
      }
    });
  for (std::thread& t : threads) t.join();
  Figures all;
  for (Figures& f : per) {
    all.Requests += f.Requests;
    all.LatencyMs.insert(all.LatencyMs.end(), f.LatencyMs.begin(), f.LatencyMs.end());
  }
  return all;
}

void Print(const char* name, const Figures& f, int seconds) {
  std::vector<double> l = f.LatencyMs;
  std::sort(l.begin(), l.end());
  double mean = 0;
  for (double x : l) mean += x;
  mean = l.empty() ? 0 : mean / (double)l.size();
  double p99 = l.empty() ? 0 : l[(size_t)((double)(l.size() - 1) * 0.99)];
  printf("%-34s %10.0f %10.3f %10.3f\n", name, (double)f.Requests / seconds, mean, p99);
}

}  // namespace

int main(int argc, char** argv) {
  int workers = argc > 1 ? atoi(argv[1]) : 2;
  int clients = argc > 2 ? atoi(argv[2]) : 4;
  int seconds = argc > 3 ? atoi(argv[3]) : 5;
  CStr path, args, formatted;
  if (!FindPhpInterpreter(CStr(""), path, args)) {
    fprintf(stderr, "bench_phppool: no php-cgi\n");
    return 1;
  }
  formatted.Printf(args.c_str(), "");
  std::string cmd = "\"" + std::string(path.c_str()) + "\" " + formatted.c_str();
  std::string dir;
  if (!PlMakePrivateTempDir("lumetta-bench-", &dir)) return 1;
  std::string script = dir + "/page.php";
  CStr(kPage).SaveToFile(script.c_str());

  PhpPool pool;
  if (!pool.Start(cmd.c_str(), workers)) {
    fprintf(stderr, "bench_phppool: %s\n", pool.FailureText().c_str());
    return 1;
  }
  printf("PHP worker pool alone (no HTTP server), %d workers, %d clients, %d s each\n", workers, clients, seconds);
  printf("%-34s %10s %10s %10s\n", "", "req/s", "mean ms", "p99 ms");
  Print("pool (FastCGI, persistent)", Measure(clients, seconds, [&] { return ThroughPool(pool, script); }), seconds);
  pool.Stop();
  Print("one php-cgi per request", Measure(clients, seconds, [&] { return PerRequest(cmd, script); }), seconds);
  PlUnlink(script.c_str());
  PlRmdir(dir.c_str());
  return 0;
}
