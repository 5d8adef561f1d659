// ctest-labels: threads
// Threads, mutexes and events of the platform layer: waits that time out,
// recursive locking and events that stay set.
#include <gtest/gtest.h>

#include <atomic>

#include "pl_thread.h"

namespace {
std::atomic<int> Counter{0};

unsigned Bump(void* arg) {
  static_cast<PlEvent*>(arg)->Wait(PL_INFINITE);
  Counter.fetch_add(1);
  return 0;
}
}  // namespace

TEST(PlThread, WaitTimesOutThenSucceedsAndCloseBeforeEndIsSafe) {
  static PlEvent go;  // outlives the thread that is closed early
  PlThread* t = PlThreadStart(Bump, &go, 64 * 1024);
  PlThread* closedEarly = PlThreadStart(Bump, &go);
  ASSERT_TRUE(t && closedEarly);
  PlThreadClose(closedEarly);  // still running: it finishes on its own
  EXPECT_FALSE(PlThreadWait(t, 20));
  go.Set();
  EXPECT_TRUE(PlThreadWait(t, PL_INFINITE));
  PlThreadClose(t);
  for (int i = 0; i < 200 && Counter.load() < 2; ++i) PlSleepMs(5);
  EXPECT_EQ(Counter.load(), 2);
}

TEST(PlSync, MutexIsRecursiveAndEventStaysSetUntilReset) {
  PlMutex m;
  m.Lock();
  EXPECT_TRUE(m.TryLock());
  m.Unlock();
  m.Unlock();
  PlEvent e;
  EXPECT_FALSE(e.Wait(0));
  e.Set();
  EXPECT_TRUE(e.Wait(0));
  e.Reset();
  EXPECT_FALSE(e.Wait(10));
}
