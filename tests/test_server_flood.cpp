// ctest-labels: threads
// Clients that hold connections without asking for anything: idle and
// slowloris floods past the connection cap, heads that trickle in forever,
// and a server whose every connection is busy.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "pl_process.h"
#include "pl_thread.h"
#include "test_servers.h"

using namespace testsup;

namespace {

std::atomic<int> Holding{0};
PlEvent* Release = nullptr;

// Keeps its connection busy until the test lets go.
bool HoldEngine(void*, void* c) {
  ++Holding;
  Release->Wait(20000);
  HTTPS_CLIENT* client = (HTTPS_CLIENT*)c;
  client->CHttpServerEx->SendHeader(client, 4, "text/plain", nullptr, 0, 0);
  client->Socket->Write("done", 4);
  return true;
}

class FloodTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Home.Write("a.txt", "inside");
    Server.Srv().EngsAdd("/hold", HoldEngine, HTTPS_OBJF_ENABLED);
  }
  // Starts the server as a process limited to `limit` open files would, then
  // gives the limit back: the clients of this test live in the same process.
  void StartUnderLimit(int limit) {
    const int original = PlOpenFileLimit();
    if (!PlSetOpenFileLimit(limit)) GTEST_SKIP() << "the open-file limit can't be changed here";
    Server.Start();
    ASSERT_TRUE(PlSetOpenFileLimit(original));
  }
  std::vector<std::unique_ptr<Conn>> Open(int n, const std::string& first) {
    std::vector<std::unique_ptr<Conn>> conns;
    for (int i = 0; i < n; i++) {
      conns.push_back(std::make_unique<Conn>(Server.Port()));
      if (!first.empty()) conns.back()->Send(first);
    }
    return conns;
  }

  TempDir Home;
  TestServer Server{Home.Path()};
};

TEST_F(FloodTest, IdleAndSlowClientsPastTheCapLeaveRoomForARealRequest) {
  StartUnderLimit(1024);
  if (HasFatalFailure() || IsSkipped()) return;
  EXPECT_LT(Server.Srv().GetConnCap(), 1024);
  auto idle = Open(550, "");
  auto slow = Open(550, "GET /a.txt HTTP/1.1\r\nHost: localhost\r\nX-Slow: ");
  PlSleepMs(300);
  const uint64_t start = PlMonotonicMs();
  Reply r = Get(Server.Port(), "/a.txt");
  const uint64_t took = PlMonotonicMs() - start;
  EXPECT_EQ(r.Body, "inside");
  EXPECT_LT(took, ReplyBoundMs(1000));
  RecordProperty("flood_reply_ms", std::to_string(took));
}

TEST_F(FloodTest, AHeadThatTricklesInIsCutAtTheDeadline) {
  Server.Srv().SetHeadDeadlineMs(800);
  Server.Start();
  Conn c(Server.Port());
  const std::string head = "GET /a.txt HTTP/1.1\r\nHost: localhost\r\nX-Pad: aaaaaaaaaaaaaaaaaaaaaaaaaaaaaa\r\n\r\n";
  const uint64_t start = PlMonotonicMs();
  size_t sent = 0;
  // One byte every 100 ms: every single wait is short, the whole is not.
  while (sent < head.size() && c.Send(head.substr(sent, 1)) && PlMonotonicMs() - start < 3000) {
    sent++;
    PlSleepMs(100);
  }
  EXPECT_LT(sent, head.size());
  EXPECT_EQ(c.ReadAll(5), "");
  EXPECT_LT(PlMonotonicMs() - start, 3000u);
  // A prompt client is not bothered by it.
  EXPECT_EQ(Get(Server.Port(), "/a.txt").Body, "inside");
}

TEST_F(FloodTest, WhenEveryConnectionIsBusyANewcomerGetsTheBareBusyLine) {
  PlEvent release;
  Release = &release;
  Holding = 0;
  StartUnderLimit(100);
  if (HasFatalFailure() || IsSkipped()) return;
  const int cap = Server.Srv().GetConnCap();
  ASSERT_LT(cap, 100);
  auto busy = Open(cap, "GET /hold HTTP/1.1\r\nHost: localhost\r\n\r\n");
  for (int waited = 0; Holding < cap && waited < 5000; waited += 10) PlSleepMs(10);
  ASSERT_EQ(Holding.load(), cap);
  EXPECT_EQ(Exchange(Server.Port(), "GET /a.txt HTTP/1.1\r\nHost: localhost\r\n\r\n"),
            "HTTP/1.1 503 Service Unavailable\r\n");
  release.Set();
  for (auto& c : busy) EXPECT_EQ(ParseReply(c->ReadAll(10)).Body, "done");
  EXPECT_EQ(Get(Server.Port(), "/a.txt").Body, "inside");
}

}  // namespace
