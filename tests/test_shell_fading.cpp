// Fading unit driven by a test clock: the opacity steps, replacing a running
// fade, the close fade, and a platform without opacity.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "alphawin.h"

namespace {

struct Applied {
  unsigned Time;
  int Alpha;
  bool operator==(const Applied& o) const { return Time == o.Time && Alpha == o.Alpha; }
};

// Virtual clock with one-shot timers, and a log of applied opacities.
struct FakeDesk {
  unsigned Now = 0;
  unsigned NextId = 1;
  struct Timer { unsigned Due; void (*Fn)(void*); void* Arg; };
  std::map<unsigned, Timer> Timers;
  std::vector<Applied> Log;
  std::map<void*, bool> Layered;
  void* Foreground = nullptr;

  void Advance(unsigned ms) {
    unsigned end = Now + ms;
    for (;;) {
      auto next = Timers.end();
      for (auto it = Timers.begin(); it != Timers.end(); ++it)
        if (it->second.Due <= end && (next == Timers.end() || it->second.Due < next->second.Due))
          next = it;
      if (next == Timers.end()) break;
      Timer t = next->second;
      Timers.erase(next);
      Now = t.Due;
      t.Fn(t.Arg);
    }
    Now = end;
  }
  std::vector<int> Alphas() const {
    std::vector<int> v;
    for (auto& a : Log) v.push_back(a.Alpha);
    return v;
  }
};

FakeDesk* Desk = nullptr;

AwPlatform FakePlatform(bool withOpacity) {
  AwPlatform p = {};
  if (withOpacity)
    p.SetOpacity = [](void*, AwAlpha a) { Desk->Log.push_back({Desk->Now, a}); };
  p.SetLayered = [](void* w, bool on) { Desk->Layered[w] = on; };
  p.IsForeground = [](void* w) { return w == Desk->Foreground; };
  p.TimerStart = [](unsigned ms, void (*fn)(void*), void* arg) {
    unsigned id = Desk->NextId++;
    Desk->Timers[id] = {Desk->Now + ms, fn, arg};
    return id;
  };
  p.TimerStop = [](unsigned id) { Desk->Timers.erase(id); };
  p.Sleep = [](unsigned ms) { Desk->Now += ms; };
  return p;
}

class ShellFading : public ::testing::Test {
 protected:
  FakeDesk D;
  int W1 = 0, W2 = 0;  // addresses stand in for windows
  void* Win1 = &W1;
  void* Win2 = &W2;
  void SetUp() override {
    Desk = &D;
    AwPlatform p = FakePlatform(true);
    AW_SetPlatform(&p);
  }
  void TearDown() override {
    AW_Reset();
    Desk = nullptr;
  }
};

TEST_F(ShellFading, DeactivateStepsDownInFiftyMsSteps) {
  AW_InitAlphaWin(Win1);
  EXPECT_TRUE(D.Layered[Win1]);
  ASSERT_NE(AW_Find(Win1), nullptr);
  EXPECT_EQ(AW_Find(Win1)->CurAlpha, 255);
  AW_CallBack(Win1, AW_DEACTIVATE);
  D.Advance(1000);
  std::vector<Applied> want = {{0, 236}, {50, 217}, {100, 198}, {150, 179}, {200, 178}};
  EXPECT_EQ(D.Log, want);
  EXPECT_TRUE(D.Timers.empty());
}

TEST_F(ShellFading, ShowThenActivateFadesUpFromOpening) {
  AW_InitAlphaWin(Win1);
  AW_CallBack(Win1, AW_SHOW);
  AW_CallBack(Win1, AW_ACTIVATE);
  D.Advance(1000);
  EXPECT_EQ(D.Alphas(), (std::vector<int>{100, 138, 176, 214, 252, 255}));
  // Activating again aims where the last fade went: nothing happens.
  AW_CallBack(Win1, AW_ACTIVATE);
  D.Advance(1000);
  EXPECT_EQ(D.Log.size(), 6u);
}

TEST_F(ShellFading, NewFadeReplacesRunningOneFromReachedOpacity) {
  AW_InitAlphaWin(Win1);
  AW_CallBack(Win1, AW_DEACTIVATE);  // 236 at 0
  D.Advance(60);                     // 217 at 50
  AW_CallBack(Win1, AW_ACTIVATE);    // from 217 to 255: step 9
  D.Advance(1000);
  std::vector<Applied> want = {{0, 236}, {50, 217}, {60, 226}, {110, 235},
                               {160, 244}, {210, 253}, {260, 255}};
  EXPECT_EQ(D.Log, want);
  EXPECT_TRUE(D.Timers.empty());
}

TEST_F(ShellFading, CloseWaitsForItsFadeOnTheCallingThread) {
  AW_InitAlphaWin(Win1);
  AW_CallBack(Win1, AW_DEACTIVATE);
  D.Advance(10);
  AW_CallBack(Win1, AW_CLOSE);  // stops the running fade; 236 -> 100, step -34
  EXPECT_EQ(D.Alphas(), (std::vector<int>{236, 202, 168, 134, 100}));
  EXPECT_EQ(D.Now, 210u);
  EXPECT_TRUE(D.Timers.empty());
}

TEST_F(ShellFading, ShortSpeedIsImmediateAndParametersApply) {
  AW_InitAlphaWin(Win1);
  AW_InitAlphaWin(Win2);
  D.Foreground = Win2;
  AW_SetPar(240, 120, 90, 40);  // changed: foreground gets max, others min at once
  EXPECT_EQ(AW_Find(Win1)->CurAlpha, 120);
  EXPECT_EQ(AW_Find(Win2)->CurAlpha, 240);
  D.Log.clear();
  AW_CallBack(Win1, AW_ACTIVATE);
  EXPECT_EQ(D.Alphas(), std::vector<int>{240});
  EXPECT_TRUE(D.Timers.empty());
}

TEST_F(ShellFading, DisabledUnitLeavesWindowsAlone) {
  AW_EnableAll(0);
  AW_InitAlphaWin(Win1);
  EXPECT_EQ(D.Layered.count(Win1), 0u);
  AW_CallBack(Win1, AW_SHOW);
  AW_CallBack(Win1, AW_DEACTIVATE);
  AW_CallBack(Win1, AW_DESTROY);  // not acted on either: the record stays
  D.Advance(1000);
  EXPECT_TRUE(D.Log.empty());
  EXPECT_EQ(AW_Windows(), 1);
}

TEST_F(ShellFading, EnableAllFadesBackToOpaqueThenDropsLayering) {
  AW_InitAlphaWin(Win1);
  AW_CallBack(Win1, AW_DEACTIVATE);
  D.Advance(1000);
  AW_EnableAll(0);
  D.Advance(1000);
  EXPECT_EQ(AW_Find(Win1)->CurAlpha, 255);
  EXPECT_FALSE(D.Layered[Win1]);
  AW_EnableAll(1);  // not the foreground window: towards the inactive opacity
  EXPECT_TRUE(D.Layered[Win1]);
  D.Advance(1000);
  EXPECT_EQ(AW_Find(Win1)->CurAlpha, 178);
}

TEST_F(ShellFading, DestroyForgetsTheWindowAndItsFade) {
  AW_InitAlphaWin(Win1);
  AW_InitAlphaWin(Win2);
  AW_CallBack(Win1, AW_DEACTIVATE);
  AW_CallBack(Win1, AW_DESTROY);
  EXPECT_EQ(AW_Find(Win1), nullptr);
  EXPECT_NE(AW_Find(Win2), nullptr);
  EXPECT_EQ(AW_Windows(), 1);
  EXPECT_TRUE(D.Timers.empty());
  AW_CallBack(Win2, AW_DESTROY);
  EXPECT_EQ(AW_Windows(), 0);
  AW_InitAlphaWin(Win1);  // the list starts again cleanly
  EXPECT_EQ(AW_Windows(), 1);
}

TEST_F(ShellFading, WithoutOpacitySupportNothingChanges) {
  AwPlatform p = FakePlatform(false);
  AW_SetPlatform(&p);
  AW_InitAlphaWin(Win1);
  AW_CallBack(Win1, AW_SHOW);
  AW_CallBack(Win1, AW_DEACTIVATE);
  D.Advance(1000);
  AW_CallBack(Win1, AW_CLOSE);
  EXPECT_EQ(AW_Find(Win1)->CurAlpha, 255);
  EXPECT_TRUE(D.Timers.empty());
}

}  // namespace
