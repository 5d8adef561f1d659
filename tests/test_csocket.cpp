// ctest-labels: threads
// The buffered socket over real loopback connections: reading bytes and lines,
// time-outs, writes to a vanished peer, and waking a wait from another thread.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "cerror.h"
#include "csocket.h"
#include "pl_thread.h"
#include "test_support.h"

using namespace testsup;

namespace {

// A CSocket on the near end of a real loopback connection.
class SocketTest : public ::testing::Test {
 protected:
  LoopbackPair Pair;
  CSocket Sock{Pair.TakeNear()};

  void SendAndEnd(const std::string& data) {
    ASSERT_TRUE(Pair.Send(data));
    PlSockShutdownSend(Pair.Far);
  }
};

bool CountReads(void* calls, int) {
  ++*static_cast<int*>(calls);
  return true;
}

TEST_F(SocketTest, GetcIsSignedAndLinesAreCutOrEndedEarly) {
  SendAndEnd("A\x80\xFF" "abcdef\nk=v;\xFF" "after\ntail");
  EXPECT_EQ(Sock.Getc(), 'A');
  EXPECT_EQ(Sock.Getc(), -128);
  EXPECT_EQ(Sock.Getc(), -1);  // byte 0xFF looks like the end, but is not
  EXPECT_FALSE(Sock.IsEof());
  char buf[64];
  EXPECT_STREQ(Sock.GetUntil(buf, 1, '\n', false), "");  // room for the terminator only
  EXPECT_STREQ(Sock.Gets(buf, 4), "abc");                 // cut; the rest follows
  EXPECT_STREQ(Sock.Gets(buf, sizeof buf), "def\n");
  EXPECT_STREQ(Sock.GetUntil(buf, sizeof buf, ';', true), "k=v");
  EXPECT_STREQ(Sock.Gets(buf, sizeof buf), "");  // 0xFF ends the line early
  EXPECT_STREQ(Sock.Gets(buf, sizeof buf), "after\n");
  EXPECT_STREQ(Sock.Gets(buf, sizeof buf), "tail");
  EXPECT_EQ(Sock.Gets(buf, sizeof buf), nullptr);
  EXPECT_TRUE(Sock.IsEof());
}

TEST_F(SocketTest, GetsIntoStringJoinsLongLinesAndReportsTheEnd) {
  std::string longLine(5000, 'L');
  SendAndEnd(longLine + "\nshort\r\ntail");
  CStr line;
  ASSERT_TRUE(Sock.Gets(line));
  EXPECT_EQ(std::string(line.c_str()), longLine + "\n");
  ASSERT_TRUE(Sock.Gets(line));
  EXPECT_STREQ(line.c_str(), "short\r\n");
  EXPECT_FALSE(Sock.Gets(line));  // input ended after some text
  EXPECT_STREQ(line.c_str(), "tail");
  EXPECT_TRUE(Sock.Gets(line));  // nothing at all: true, with an empty line
  EXPECT_TRUE(line.IsEmpty());
}

TEST_F(SocketTest, ReadSpansRefillsAndFlushDiscardsWholeBuffers) {
  std::string data(20000, 0);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 4096);
  ASSERT_TRUE(Pair.Send(data));
  std::string got(data.size(), 0);
  ASSERT_EQ(Sock.Read(&got[0], (int)data.size()), (int)data.size());
  EXPECT_TRUE(got == data);
  ASSERT_TRUE(Pair.Send(std::string(100, 'x')));
  Sock.Flush(1);  // one byte asked, the whole buffer gone
  EXPECT_EQ(Sock.GetBufFree(), 0);
  SendAndEnd("Z");
  EXPECT_EQ(Sock.Getc(), 'Z');
}

TEST_F(SocketTest, TimeOutEndsInputWhileThePeerStaysConnected) {
  Sock.SetTimeOut(1);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Sock.Getc(), -1);
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(900));
  EXPECT_LT(waited, std::chrono::seconds(5));
  EXPECT_TRUE(Sock.IsEof());
  ASSERT_TRUE(Pair.Send("late"));
  char buf[16];
  EXPECT_EQ(Sock.Read(buf, 4), 0);
}

TEST_F(SocketTest, WritesFailQuietlyOnceThePeerIsGone) {
  Pair.CloseFar();
  // The first send may still be accepted; the peer's reset fails a later one.
  int result = 1;
  for (int i = 0; i < 50 && result != 0; ++i) result = Sock.Write("data", 4);
  EXPECT_EQ(result, 0);  // and the process is still here: no SIGPIPE
}

// The peer resets the connection: the first receive fails, which is not end
// of input; the next one reports the end. No reader hands out bytes.
TEST(SocketFailedReceive, EachReaderStopsAndTheNextReadSeesTheEnd) {
  if (TestUnderWine()) GTEST_SKIP() << "wine reports a reset connection as its end, not as a failed receive";
  for (int reader = 0; reader < 5; ++reader) {
    SCOPED_TRACE(reader);
    LoopbackPair pair;
    CSocket sock(pair.TakeNear());
    int calls = 0;
    sock.ReadCallBack = CountReads;
    sock.ReadCallBackArg = &calls;
    ASSERT_EQ(sock.Write("x", 1), 1);
    pair.CloseFar();  // unread data on the far side: it answers with a reset
    char buf[64];
    CStr line;
    switch (reader) {
      case 0: EXPECT_EQ(sock.Getc(), -1); break;
      case 1: EXPECT_STREQ(sock.Gets(buf, sizeof buf), ""); break;
      case 2: EXPECT_TRUE(sock.Gets(line) && line.IsEmpty()); break;
      case 3: EXPECT_EQ(sock.Read(buf, sizeof buf), 0); break;
      default: sock.Flush(100);
    }
    EXPECT_FALSE(sock.IsEof());
    EXPECT_EQ(sock.GetBufFree(), 0);
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(sock.Getc(), -1);
    EXPECT_TRUE(sock.IsEof());
  }
}

int ConnectError(const char* host, int port) {
  try {
    CSocket().Connect(host, port);
  } catch (int code) {
    return code;
  }
  return 0;
}

TEST(SocketConnect, ExchangesDataAndReportsBadHostsAndRefusedPorts) {
  LoopbackListener listener;
  CSocket client;
  client.Connect(CStr("127.0.0.1"), listener.Port());
  CSocket server(listener.Accept());
  EXPECT_EQ(client.Puts("ping\n"), 5);
  CStr line;
  ASSERT_TRUE(server.Gets(line));
  EXPECT_STREQ(line.c_str(), "ping\n");

  EXPECT_EQ(ConnectError("no-such-host.invalid", 80), CERR_SOCK_HOST);
  EXPECT_EQ(ConnectError(nullptr, 80), CERR_SOCK_HOST);
  EXPECT_EQ(ConnectError("127.0.0.1", ClosedLoopbackPort()), CERR_SOCK_CONNECT);
  // 255.255.255.255 takes the host-name route (it equals INADDR_NONE) and still resolves; only the
  // connection itself fails.
  EXPECT_EQ(ConnectError("255.255.255.255", 80), CERR_SOCK_CONNECT);
}

// The server stops its connection threads by shutting their sockets down: a
// thread already waiting for input must see that at once, not at its time-out.
TEST(SocketShutdown, WakesAWaitInAnotherThread) {
  LoopbackPair pair;
  int result = 0;
  uint64_t waited = 0;
  std::thread waiter([&] {
    uint64_t start = PlMonotonicMs();
    result = PlSockWaitReadable(pair.Near, 10);
    waited = PlMonotonicMs() - start;
  });
  PlSleepMs(150);
  PlSockShutdownBoth(pair.Near);
  waiter.join();
  EXPECT_NE(result, 0);  // readable (the next receive fails) or an error, never the time-out
  EXPECT_LT(waited, 2000u);
}

}  // namespace
