// Starts a PHP worker pool, prints the workers' process ids on one line and
// then waits to be killed: the test that kills it checks that no worker
// outlives it.
#include <cstdio>
#include <cstdlib>

#include "phppool.h"

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  PhpPool pool;
  if (!pool.Start(argv[1], atoi(argv[2]))) {
    printf("failed %s\n", pool.FailureText().c_str());
    return 1;
  }
  for (long long pid : pool.WorkerPids()) printf("%lld ", pid);
  printf("\n");
  fflush(stdout);
  for (;;) PlSleepMs(1000);
}
