// ctest-labels: threads
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "cerror.h"
#include "csocket.h"
#include "loopback_peer.h"

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

struct ReadLog {
  int Calls = 0;
  long long Bytes = 0;
  int Largest = 0;
  bool Allow = true;
};

bool CountReads(void* arg, int count) {
  ReadLog* log = static_cast<ReadLog*>(arg);
  ++log->Calls;
  log->Bytes += count;
  if (count > log->Largest) log->Largest = count;
  return log->Allow;
}

TEST_F(SocketTest, GetcIsSignedAndByteFFLooksLikeEndOfInput) {
  SendAndEnd("A\x80\xFF");
  EXPECT_EQ(Sock.Getc(), 'A');
  EXPECT_EQ(Sock.Getc(), -128);
  EXPECT_EQ(Sock.Getc(), -1);
  EXPECT_FALSE(Sock.IsEof());
  EXPECT_EQ(Sock.Getc(), -1);
  EXPECT_TRUE(Sock.IsEof());
}

TEST_F(SocketTest, GetUntilCutsKeepsOrDropsTheDelimiter) {
  SendAndEnd("abcdef\nk=v;\xFF" "after\ntail");
  char buf[64];
  memset(buf, 'X', sizeof buf);
  ASSERT_EQ(Sock.GetUntil(buf, 1, '\n', false), buf);  // room for the terminator only
  EXPECT_STREQ(buf, "");
  EXPECT_STREQ(Sock.Gets(buf, 4), "abc");  // cut, not NULL; the rest follows
  EXPECT_STREQ(Sock.Gets(buf, sizeof buf), "def\n");
  EXPECT_STREQ(Sock.GetUntil(buf, sizeof buf, ';', true), "k=v");
  EXPECT_STREQ(Sock.Gets(buf, sizeof buf), "");  // 0xFF ends the line early
  EXPECT_FALSE(Sock.IsEof());
  EXPECT_STREQ(Sock.Gets(buf, sizeof buf), "after\n");
  EXPECT_STREQ(Sock.Gets(buf, sizeof buf), "tail");  // partial last line
  EXPECT_EQ(Sock.Gets(buf, sizeof buf), nullptr);
  EXPECT_EQ(Sock.GetUntil(buf, 0, '\n', false), nullptr);
}

TEST_F(SocketTest, GetsIntoStringJoinsLongLinesAndReportsEmptinessAtTheEnd) {
  std::string longLine(1000, 'L');
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

TEST_F(SocketTest, ReadSpansManyRefillsAndTheObserverSeesEach) {
  std::string data(100 * 1024, 0);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7 + i / 4096);
  ReadLog log;
  Sock.ReadCallBack = CountReads;
  Sock.ReadCallBackArg = &log;
  Pair.SendLater(data, true);
  std::vector<char> got(data.size() + 10);
  ASSERT_EQ(Sock.Read(got.data(), static_cast<int>(data.size())), static_cast<int>(data.size()));
  EXPECT_EQ(0, memcmp(got.data(), data.data(), data.size()));
  EXPECT_EQ(log.Bytes, static_cast<long long>(data.size()));
  EXPECT_GE(log.Calls, 25);
  EXPECT_LE(log.Largest, 4096);
  EXPECT_EQ(Sock.Read(got.data(), 10), 0);
  EXPECT_TRUE(Sock.IsEof());
}

TEST_F(SocketTest, ObserverRefusalStopsInput) {
  ReadLog log;
  log.Allow = false;
  Sock.ReadCallBack = CountReads;
  Sock.ReadCallBackArg = &log;
  ASSERT_TRUE(Pair.Send("hello"));
  EXPECT_EQ(Sock.Getc(), -1);
  EXPECT_TRUE(Sock.IsEof());
  EXPECT_EQ(log.Calls, 1);
  EXPECT_EQ(log.Bytes, 5);
}

TEST_F(SocketTest, FlushDiscardsTheWholeBuffer) {
  ASSERT_TRUE(Pair.Send(std::string(100, 'x')));
  Sock.Flush(1);
  EXPECT_EQ(Sock.GetBufFree(), 0);
  SendAndEnd("Z");
  EXPECT_EQ(Sock.Getc(), 'Z');
}

TEST_F(SocketTest, TimeOutEndsInputWhileThePeerStaysConnected) {
  EXPECT_EQ(Sock.GetTimeOut(), 60);
  Sock.SetTimeOut(1);
  EXPECT_EQ(Sock.GetTimeOut(), 1);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(Sock.Getc(), -1);
  auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(900));
  EXPECT_LT(waited, std::chrono::seconds(5));
  EXPECT_TRUE(Sock.IsEof());
  ASSERT_TRUE(Pair.Send("late"));
  char buf[16];
  EXPECT_EQ(Sock.Getc(), -1);
  EXPECT_EQ(Sock.GetUntil(buf, sizeof buf, '\n', false), nullptr);
  EXPECT_EQ(Sock.Read(buf, 4), 0);
}

TEST_F(SocketTest, SetBufKeepsWhatFits) {
  EXPECT_FALSE(Sock.SetBuf(0));
  EXPECT_TRUE(Sock.SetBuf(4096));
  SendAndEnd("0123456789");
  EXPECT_EQ(Sock.Getc(), '0');
  EXPECT_EQ(Sock.GetBufFree(), 9);
  ASSERT_TRUE(Sock.SetBuf(8192));  // growing keeps every unread byte
  EXPECT_EQ(Sock.Getc(), '1');
  ASSERT_TRUE(Sock.SetBuf(4));  // shrinking below the data drops the tail
  char buf[16] = {0};
  EXPECT_EQ(Sock.Read(buf, sizeof buf), 2);
  EXPECT_STREQ(buf, "23");
}

TEST_F(SocketTest, WritesReachThePeerAndFailQuietlyOnceItIsGone) {
  EXPECT_EQ(Sock.Puts("hello "), 6);
  EXPECT_EQ(Sock.Puts(CStr("world")), 5);
  EXPECT_EQ(Sock.Write("!", 1), 1);
  PlSockShutdownSend(Sock.Socket);
  EXPECT_EQ(Pair.Receive(), "hello world!");
  Pair.CloseFar();
  // The first send may still be accepted; the peer's reset fails the next.
  int result = 1;
  for (int i = 0; i < 50 && result != 0; ++i) result = Sock.Write("data", 4);
  EXPECT_EQ(result, 0);  // and the process is still here: no SIGPIPE
}

// The peer resets the connection: the first receive fails (-1), which is not
// end of input; the next one reports the end. Every reader must stop short
// without handing out bytes it never received.
TEST(SocketFailedReceive, EachReaderStopsAndTheNextReadSeesTheEnd) {
  enum Reader { kGetc, kGetUntil, kGetsString, kRead, kFlush };
  for (Reader reader : {kGetc, kGetUntil, kGetsString, kRead, kFlush}) {
    SCOPED_TRACE(reader);
    LoopbackPair pair;
    CSocket sock(pair.TakeNear());
    ReadLog log;
    sock.ReadCallBack = CountReads;
    sock.ReadCallBackArg = &log;
    ASSERT_EQ(sock.Write("x", 1), 1);
    pair.CloseFar();  // unread data on the far side: it answers with a reset
    char buf[64];
    CStr line;
    switch (reader) {
      case kGetc: EXPECT_EQ(sock.Getc(), -1); break;
      case kGetUntil: EXPECT_STREQ(sock.Gets(buf, sizeof buf), ""); break;
      case kGetsString:
        EXPECT_TRUE(sock.Gets(line));
        EXPECT_TRUE(line.IsEmpty());
        break;
      case kRead: EXPECT_EQ(sock.Read(buf, sizeof buf), 0); break;
      case kFlush: sock.Flush(100); break;
    }
    EXPECT_FALSE(sock.IsEof());
    EXPECT_EQ(sock.GetBufFree(), 0);
    EXPECT_EQ(log.Calls, 0);
    EXPECT_EQ(sock.Getc(), -1);
    EXPECT_TRUE(sock.IsEof());
  }
}

TEST(SocketConnect, ConnectsAndExchangesData) {
  LoopbackListener listener;
  CSocket client;
  client.Connect(CStr("127.0.0.1"), listener.Port());
  CSocket server(listener.Accept());
  EXPECT_EQ(client.Puts("ping\n"), 5);
  CStr line;
  ASSERT_TRUE(server.Gets(line));
  EXPECT_STREQ(line.c_str(), "ping\n");
  EXPECT_EQ(server.Puts("pong\n"), 5);
  ASSERT_TRUE(client.Gets(line));
  EXPECT_STREQ(line.c_str(), "pong\n");
}

int ConnectError(const char* host, int port) {
  CSocket sock;
  try {
    sock.Connect(host, port);
  } catch (int code) {
    return code;
  }
  return 0;
}

TEST(SocketConnect, ReportsUnresolvableHostsAndRefusedPorts) {
  EXPECT_EQ(ConnectError("no-such-host.invalid", 80), CERR_SOCK_HOST);
  EXPECT_EQ(ConnectError(nullptr, 80), CERR_SOCK_HOST);
  EXPECT_EQ(ConnectError("127.0.0.1", ClosedLoopbackPort()), CERR_SOCK_CONNECT);
  // The all-ones address is looked up as a name and resolves; only the
  // connection itself fails.
  EXPECT_EQ(ConnectError("255.255.255.255", 80), CERR_SOCK_CONNECT);
}

TEST(SocketTls, FailedHandshakeThrowsAndClosesTheSocket) {
  // No TLS library is bound here, so the session can't even be created.
  LoopbackPair pair;
  int code = 0;
  try {
    CSocket tls(pair.TakeNear(), nullptr);
  } catch (int c) {
    code = c;
  }
  EXPECT_EQ(code, CERR_SOCK_SSL);
  EXPECT_EQ(pair.Receive(), "");  // the far side sees the connection end
}

TEST(SocketNone, ReadingWithoutASocketEndsAtOnce) {
  CSocket sock;
  EXPECT_EQ(sock.Getc(), -1);
  EXPECT_TRUE(sock.IsEof());
  EXPECT_EQ(sock.Write("x", 1), 0);
}

}  // namespace
