// ctest-labels: threads
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
  PlEvent go, go2;
  Counter = 0;
  PlThread* t = PlThreadStart(Bump, &go, 64 * 1024);
  ASSERT_NE(t, nullptr);
  EXPECT_FALSE(PlThreadWait(t, 20));
  go.Set();
  EXPECT_TRUE(PlThreadWait(t, PL_INFINITE));
  EXPECT_EQ(Counter.load(), 1);
  PlThreadClose(t);

  t = PlThreadStart(Bump, &go2);  // closed while still running: it finishes on its own
  ASSERT_NE(t, nullptr);
  PlThreadClose(t);
  go2.Set();
  for (int i = 0; i < 200 && Counter.load() == 1; ++i) PlSleepMs(5);
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
  EXPECT_TRUE(e.Wait(0));
  e.Reset();
  EXPECT_FALSE(e.Wait(10));
}
