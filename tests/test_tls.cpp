// ctest-labels: threads
#include <gtest/gtest.h>

#include <atomic>
#include <iterator>
#include <filesystem>
#include <string>

#include "cerror.h"
#include "chttpclient.h"
#include "chttpserver.h"
#include "csocket.h"
#include "extras_tls.h"
#include "extras_tmpdir.h"
#include "pl_thread.h"

namespace {

std::atomic<int> SslErrors{0};
std::atomic<int> LastSslErrorCode{0};

void CountSslError(HTTPS_CLIENT* client, int code) {
  if (client) LastSslErrorCode = code;
  ++SslErrors;
}

template <class F>
int ThrownCode(F f) {
  try {
    f();
  } catch (int code) {
    return code;
  }
  return 0;
}

class TlsTest : public ::testing::Test {
 protected:
  static ExtrasTempDir* Dir;
  static std::string Cert, Key, OtherKey;

  static void SetUpTestSuite() {
    Dir = new ExtrasTempDir();
    Cert = Dir->File("cert.pem");
    Key = Dir->File("key.pem");
    OtherKey = Dir->File("other.pem");
    Dir->Write("page.html", "hello over tls");
    ASSERT_TRUE(ExtrasMakeCert(Cert, Key));
    ASSERT_TRUE(ExtrasMakeKey(OtherKey));
  }
  static void TearDownTestSuite() {
    delete Dir;
    Dir = nullptr;
  }

  void Configure(CHttpServer& srv, const std::string& cert, const std::string& key) {
    srv.SetHomeDir(Dir->Path().c_str());
    srv.SslCertFile = cert.c_str();
    srv.SslKeyFile = key.c_str();
    srv.SslEnabled = !cert.empty() && !key.empty();  // the owner's switch
  }
  std::string Curl(unsigned short port, const char* path = "/page.html") {
    std::string out;
    int rc = ExtrasRun("curl -s --max-time 20 --cacert '" + Cert + "' https://127.0.0.1:" +
                       std::to_string(port) + path, &out);
    return rc == 0 ? out : "<curl failed " + std::to_string(rc) + ">";
  }
};

ExtrasTempDir* TlsTest::Dir = nullptr;
std::string TlsTest::Cert, TlsTest::Key, TlsTest::OtherKey;

int OpenDescriptors() {
  std::filesystem::directory_iterator fds("/proc/self/fd");
  return (int)std::distance(fds, std::filesystem::directory_iterator());
}

bool WaitFor(const std::atomic<int>& value, int target, int timeoutMs) {
  for (int waited = 0; value.load() < target && waited < timeoutMs; waited += 10) PlSleepMs(10);
  return value.load() >= target;
}

}  // namespace

// Must run before anything binds the library in this process (CTest gives
// every test a process of its own); skipped otherwise.
TEST_F(TlsTest, MissingLibraryFailsToStart) {
  if (!OpenSSLSetLibraryName("libssl-absent.so.99")) GTEST_SKIP() << "TLS library already bound";
  {
    CHttpServer srv;
    Configure(srv, Cert, Key);
    EXPECT_EQ(ThrownCode([&] { srv.Start(); }), CERR_HTTPSRV_SSL_INIT);
    EXPECT_EQ(srv.SslCtx, nullptr);
    EXPECT_FALSE(CHttpServer::OpenSSLInit());
    EXPECT_EQ(OpenSsl.SSL_new, nullptr);
  }
  ASSERT_TRUE(OpenSSLSetLibraryName("libssl.so.3"));
  EXPECT_TRUE(CHttpServer::OpenSSLInit());
  EXPECT_FALSE(OpenSSLSetLibraryName("libssl.so.3"));  // fixed once bound
}

TEST_F(TlsTest, HalfConfiguredPairServesPlainHttp) {
  const std::pair<std::string, std::string> pairs[] = {{"", ""}, {"", Key}, {Cert, ""}};
  for (auto& pair : pairs) {
    CHttpServer srv;
    Configure(srv, pair.first, pair.second);
    unsigned short port = ExtrasStartServer(srv);
    ASSERT_NE(port, 0);
    EXPECT_EQ(srv.SslCtx, nullptr);
    CHttpClient client;
    client.ParseUrl(CStr("http://127.0.0.1:") + CStr((int)port) + "/page.html");
    CStr* body = client.GetStr();
    ASSERT_NE(body, nullptr);
    EXPECT_EQ(std::string(body->c_str()), "hello over tls");
    delete body;
  }
}

TEST_F(TlsTest, BadCertificateOrKeyNeverListens) {
  struct {
    std::string cert, key;
    int code;
  } cases[] = {{Dir->File("missing.pem"), Key, CERR_HTTPSRV_SSL_CERT},
               {Key, Key, CERR_HTTPSRV_SSL_CERT},  // a key is not a certificate
               {Cert, OtherKey, CERR_HTTPSRV_SSL_KEY},
               {Cert, Dir->File("missing-key.pem"), CERR_HTTPSRV_SSL_KEY}};
  for (auto& c : cases) {
    CHttpServer srv;
    Configure(srv, c.cert, c.key);
    srv.SetListeningAddr(0x7f000001);
    srv.SetPortA(1);  // would fail to listen: the TLS check must come first
    EXPECT_EQ(ThrownCode([&] { srv.Start(); }), c.code) << c.cert << " / " << c.key;
    EXPECT_EQ(srv.SslCtx, nullptr);
  }
}

TEST_F(TlsTest, RealClientsAndAFailedHandshake) {
  CHttpServer srv;
  Configure(srv, Cert, Key);
  srv.OnSslError = CountSslError;
  unsigned short port = ExtrasStartServer(srv);
  ASSERT_NE(port, 0);
  ASSERT_NE(srv.SslCtx, nullptr);
  const int idle = OpenDescriptors();
  EXPECT_EQ(Curl(port), "hello over tls");

  // A plain client on the TLS port: the handshake fails, the server reports
  // it and goes on serving.
  SslErrors = 0;
  {
    CSocket plain;
    plain.Connect("127.0.0.1", port);
    plain.Puts("GET /page.html HTTP/1.0\r\n\r\n");
    plain.SetTimeOut(10);
    CStr line;
    plain.Gets(line);
    EXPECT_EQ(line.Find("hello"), -1);
  }
  EXPECT_TRUE(WaitFor(SslErrors, 1, 10000));
  EXPECT_EQ(LastSslErrorCode.load(), 1);
  // Back to the idle count once the connection threads have finished: the
  // rejected socket is closed too.
  int open = OpenDescriptors();
  for (int waited = 0; open != idle && waited < 3000; waited += 10) PlSleepMs(10), open = OpenDescriptors();
  EXPECT_EQ(open, idle);
  EXPECT_EQ(Curl(port), "hello over tls");

  // A second server in the same process shares the binding.
  CHttpServer second;
  Configure(second, Cert, Key);
  unsigned short port2 = ExtrasStartServer(second);
  ASSERT_NE(port2, 0);
  EXPECT_EQ(Curl(port2), "hello over tls");
}
