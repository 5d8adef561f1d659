// ctest-labels: nosan
// Memory that clients can make the server hold: bodies that are announced
// and never sent, and one large upload. Measured from /proc, so kept out of
// the sanitizer builds, whose allocators hold freed blocks back on purpose.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "pl_thread.h"
#include "test_servers.h"

using namespace testsup;

namespace {

class MemoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Home.Write("up.bin", "x");
    Server.Srv().Vadd("bin", Home.Join("up.bin").c_str(), nullptr, HTTPS_OBJ_EXT, HTTPS_OBJF_ENABLED);
    Server.Srv().OnCgi = BodySizeEngine;
    Server.Srv().SetMaxPostLen(64 << 20);
  }
  std::string HostLine() const { return "Host: localhost:" + std::to_string(Server.Port()) + "\r\n"; }

  TempDir Home;
  TestServer Server{Home.Path()};
};

TEST_F(MemoryTest, AnnouncedBodiesCostNothingUntilTheyArrive) {
  Server.Start();
  const std::string announce = "POST /x.bin HTTP/1.1\r\n" + HostLine() + "Content-Length: 67108864\r\n\r\n";
  const long before = ProcStatusKb("VmRSS");
  if (before < 0) GTEST_SKIP() << "no /proc";
  std::vector<std::unique_ptr<Conn>> idle;
  for (int i = 0; i < 16; i++) {
    idle.push_back(std::make_unique<Conn>(Server.Port()));
    idle.back()->Send(announce + "abc");
  }
  PlSleepMs(500);
  const long added = ProcStatusKb("VmRSS") - before;
  EXPECT_LT(added, 50 * 1024) << "KiB added by 16 announced bodies";
  RecordProperty("announced_rss_kib", std::to_string(added));
  idle.clear();

  // One whole upload: held once, so the peak stays near its size.
  const int size = 64 << 20;
  Conn up(Server.Port());
  ASSERT_TRUE(up.Send("POST /x.bin HTTP/1.1\r\n" + HostLine() + "Content-Length: " + std::to_string(size) + "\r\n\r\n"));
  const std::string chunk(1 << 20, 'u');
  std::ofstream("/proc/self/clear_refs") << "5";  // the peak starts again from here
  const long base = ProcStatusKb("VmRSS");
  long peak = base;
  for (int sent = 0; sent < size; sent += (int)chunk.size()) {
    ASSERT_TRUE(up.Send(chunk));
    peak = std::max(peak, ProcStatusKb("VmRSS"));
  }
  std::string reply = up.ReadAll(30);
  peak = std::max({peak, ProcStatusKb("VmRSS"), ProcStatusKb("VmHWM")});
  EXPECT_EQ(ParseReply(reply).Body, "size " + std::to_string(size));
  EXPECT_LT(peak - base, (long)(size / 1024 * 13 / 10)) << "KiB peak above the start of the upload";
  RecordProperty("upload_peak_kib", std::to_string(peak - base));
}

}  // namespace
