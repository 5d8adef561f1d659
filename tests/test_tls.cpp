// ctest-labels: threads
// The server over TLS: start-up failures for a missing library or a bad
// certificate, a real client, and slow clients that must not stall others.
#include <gtest/gtest.h>

#include <atomic>
#include <iterator>

#include "cerror.h"
#include "chttpserver.h"
#include "csocket.h"
#include "pl_dl.h"
#include "pl_process.h"
#include "test_support.h"

using namespace testsup;

namespace {

std::atomic<int> SslErrors{0};

void CountSslError(HTTPS_CLIENT*, int) { ++SslErrors; }

int OpenDescriptors() { return PlOpenHandleCount(); }

// The cases that talk TLS need the library and the openssl command to make
// certificates: Windows here has neither.
#define SKIP_WITHOUT_TLS() \
  if (TestOnWindows()) GTEST_SKIP() << "no OpenSSL DLLs (" << PL_LIB_SSL << ") or openssl command for Windows here"

class TlsTest : public ::testing::Test {
 protected:
  static inline TempDir* Dir = nullptr;

  // Two unrelated self-signed pairs for 127.0.0.1, made by the openssl command.
  static void SetUpTestSuite() {
    Dir = new TempDir();
    Dir->Write("page.html", "hello over tls");
    if (TestOnWindows()) return;
    for (std::string pair : {"", "other-"})
      ASSERT_EQ(RunCommand("openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=localhost"
                          " -addext subjectAltName=IP:127.0.0.1 -keyout '" + Dir->Join(pair + "key.pem") +
                          "' -out '" + Dir->Join(pair + "cert.pem") + "' >/dev/null 2>&1"), 0);
  }
  static void TearDownTestSuite() { delete Dir; }

  void Configure(CHttpServer& srv, const char* cert, const char* key) {
    srv.SetHomeDir(Dir->Path().c_str());
    srv.SslCertFile = Dir->Join(cert).c_str();
    srv.SslKeyFile = Dir->Join(key).c_str();
    srv.SslEnabled = true;
  }
  std::string Curl(unsigned short port) {
    std::string out;
    return RunCommand("curl -s --max-time 20 --cacert '" + Dir->Join("cert.pem") + "' https://127.0.0.1:" +
                     std::to_string(port) + "/page.html", &out) == 0 ? out : "<curl failed>";
  }
};

}  // namespace

// Must run before anything binds the library in this process (CTest gives
// every test a process of its own); skipped otherwise.
TEST_F(TlsTest, MissingLibraryFailsToStart) {
  if (!OpenSSLSetLibraryName("libssl-absent.so.99")) GTEST_SKIP() << "TLS library already bound";
  CHttpServer srv;
  Configure(srv, "cert.pem", "key.pem");
  EXPECT_EQ(ThrownCode([&] { srv.Start(); }), CERR_HTTPSRV_SSL_INIT);
  ASSERT_TRUE(OpenSSLSetLibraryName("libssl.so.3"));  // for the tests that follow in this process
}

TEST_F(TlsTest, BadCertificateOrKeyNeverListens) {
  SKIP_WITHOUT_TLS();
  const struct {
    const char *cert, *key;
    int code;
  } cases[] = {{"missing.pem", "key.pem", CERR_HTTPSRV_SSL_CERT},
               {"cert.pem", "other-key.pem", CERR_HTTPSRV_SSL_KEY}};
  for (auto& c : cases) {
    SCOPED_TRACE(std::string(c.cert) + " / " + c.key);
    CHttpServer srv;
    Configure(srv, c.cert, c.key);
    srv.SetListeningAddr(0x7f000001);
    srv.SetPortA(1);  // cannot listen here: the TLS checks must fail first
    EXPECT_EQ(ThrownCode([&] { srv.Start(); }), c.code);
  }
}

TEST_F(TlsTest, RealClientAndAFailedHandshake) {
  SKIP_WITHOUT_TLS();
  CHttpServer srv;
  Configure(srv, "cert.pem", "key.pem");
  srv.OnSslError = CountSslError;
  unsigned short port = StartOnFreePort(srv);
  ASSERT_NE(port, 0);
  const int idle = OpenDescriptors();
  EXPECT_EQ(Curl(port), "hello over tls");
  {
    CSocket plain;  // speaks plain HTTP to the TLS port
    plain.Connect("127.0.0.1", port);
    plain.Puts("GET /page.html HTTP/1.0\r\n\r\n");
    plain.SetTimeOut(10);
    CStr line;
    plain.Gets(line);
    EXPECT_EQ(line.Find("hello"), -1);
  }
  for (int waited = 0; (SslErrors == 0 || OpenDescriptors() != idle) && waited < 5000; waited += 10) PlSleepMs(10);
  EXPECT_EQ(SslErrors.load(), 1);
  EXPECT_EQ(OpenDescriptors(), idle);  // the rejected socket was closed
  EXPECT_EQ(Curl(port), "hello over tls");
}

// The handshake runs on each connection's own thread under its own deadline:
// a client that says nothing, or trickles its hello, delays nobody else.
TEST_F(TlsTest, SilentAndTricklingClientsDelayNobody) {
  SKIP_WITHOUT_TLS();
  CHttpServer srv;
  Configure(srv, "cert.pem", "key.pem");
  unsigned short port = StartOnFreePort(srv);
  ASSERT_NE(port, 0);
  CSocket silent, trickling;
  silent.Connect("127.0.0.1", port);
  trickling.Connect("127.0.0.1", port);
  trickling.Write("\x16", 1);  // the first byte of a TLS record, then nothing
  PlSleepMs(200);
  const uint64_t start = PlMonotonicMs();
  EXPECT_EQ(Curl(port), "hello over tls");
  const uint64_t took = PlMonotonicMs() - start;
  EXPECT_LT(took, 3000u);
  RecordProperty("tls_reply_ms", std::to_string(took));
  // However slowly it trickles, the handshake ends at its deadline.
  const uint64_t trickleStart = PlMonotonicMs();
  bool closed = false;
  while (!closed && PlMonotonicMs() - trickleStart < 15000) {
    trickling.Write("\x03", 1);
    char byte;
    closed = PlSockWaitReadable(trickling.Socket, 0) == 1 && PlSockRecv(trickling.Socket, &byte, 1) <= 0;
    PlSleepMs(500);
  }
  EXPECT_TRUE(closed);
  EXPECT_LT(PlMonotonicMs() - trickleStart, (uint64_t)CSocket::kTlsHandshakeMs + 2000);
  RecordProperty("tls_trickle_cut_ms", std::to_string(PlMonotonicMs() - trickleStart));
}
