// Window fading driven by a test clock: the opacity steps, replacing a running
// fade, the closing fade, and the unit switched off.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "alphawin.h"

namespace {

using Steps = std::vector<std::pair<unsigned, int>>;  // (time, opacity) applied
struct Timer { unsigned Due; void (*Fn)(void*); void* Arg; };
struct Desk {
  unsigned Now = 0, LastId = 0;
  std::map<unsigned, Timer> Timers;
  Steps Applied;
  std::map<void*, bool> Layered;
} D;

// Moves the virtual clock on, firing the timers that fall due. One fade runs at
// a time here, so the oldest timer is always the next one due.
void Advance(unsigned ms) {
  unsigned end = D.Now + ms;
  while (!D.Timers.empty() && D.Timers.begin()->second.Due <= end) {
    Timer t = D.Timers.begin()->second;
    D.Timers.erase(D.Timers.begin());
    D.Now = t.Due;
    t.Fn(t.Arg);
  }
  D.Now = end;
}

void InstallDesk() {
  AwPlatform p = {};
  p.SetOpacity = [](void*, AwAlpha a) { D.Applied.push_back({D.Now, a}); };
  p.SetLayered = [](void* w, bool on) { D.Layered[w] = on; };
  p.TimerStart = [](unsigned ms, void (*fn)(void*), void* arg) {
    D.Timers[++D.LastId] = {D.Now + ms, fn, arg};
    return D.LastId;
  };
  p.TimerStop = [](unsigned id) { D.Timers.erase(id); };
  p.Sleep = [](unsigned ms) { D.Now += ms; };
  AW_SetPlatform(&p);
}

class ShellFading : public ::testing::Test {
 protected:
  int W1 = 0, W2 = 0;  // their addresses stand in for windows
  void SetUp() override {
    D = Desk();
    InstallDesk();
    AW_InitAlphaWin(&W1);
  }
  void TearDown() override { AW_Reset(); }
};

TEST_F(ShellFading, FadesInStepsFromTheOpacityReachedAndClosesSynchronously) {
  AW_CallBack(&W1, AW_DEACTIVATE);
  Advance(1000);
  EXPECT_EQ(D.Applied, (Steps{{0, 236}, {50, 217}, {100, 198}, {150, 179}, {200, 178}}));
  D.Applied.clear();
  AW_CallBack(&W1, AW_ACTIVATE);  // 178 up to 255 in steps of 19
  Advance(60);
  AW_CallBack(&W1, AW_DEACTIVATE);  // from the 216 reached back down in steps of -9
  Advance(1000);
  AW_CallBack(&W1, AW_ACTIVATE);
  Advance(10);
  AW_CallBack(&W1, AW_CLOSE);  // drops the fade up; down to 100 before it returns
  EXPECT_EQ(D.Applied, (Steps{{1000, 197}, {1050, 216}, {1060, 207}, {1110, 198}, {1160, 189},
                              {1210, 180}, {1260, 178}, {2060, 197}, {2070, 173}, {2120, 149},
                              {2170, 125}, {2220, 101}, {2270, 100}}));
  EXPECT_TRUE(D.Timers.empty());
  AW_CallBack(&W1, AW_ACTIVATE);
  AW_CallBack(&W1, AW_DESTROY);  // takes the running fade with it
  EXPECT_TRUE(D.Timers.empty());
  EXPECT_EQ(AW_Windows(), 0);
}

TEST_F(ShellFading, SpeedBelowOneStepIsImmediate) {
  AW_InitAlphaWin(&W2);
  AW_SetPar(240, 120, 90, 40);  // new limits reach the open windows at once
  AW_CallBack(&W1, AW_SHOW);  // opens at the opening opacity
  AW_CallBack(&W1, AW_ACTIVATE);
  EXPECT_EQ(D.Applied, (Steps{{0, 120}, {0, 120}, {0, 90}, {0, 240}}));
  AW_CallBack(&W1, AW_DESTROY);  // the first record goes, the second stays listed
  EXPECT_NE(AW_Find(&W2), nullptr);
}

TEST_F(ShellFading, SwitchedOffItFadesBackToOpaqueAndLeavesWindowsAlone) {
  AW_CallBack(&W1, AW_DEACTIVATE);
  Advance(1000);
  AW_EnableAll(0);  // back to opaque first, then a plain window
  Advance(1000);
  EXPECT_FALSE(D.Layered[&W1]);
  for (AwEvent e : {AW_SHOW, AW_DEACTIVATE, AW_CLOSE, AW_DESTROY}) AW_CallBack(&W1, e);
  Advance(1000);
  EXPECT_EQ(D.Applied.back(), (std::pair<unsigned, int>{1200, 255}));  // nothing after that
  EXPECT_EQ(AW_Windows(), 1);  // not even the destroy is acted on
}

}  // namespace
