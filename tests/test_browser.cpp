// ctest-labels: nosan
// A real browser as the server's client: headless Chromium loads the static
// application under tests/data/static_app, whose own script checks that the
// style sheet, scripts, images, a JSON fetch and a redirected sub-directory
// all arrived, and writes the outcome into the page.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "dispatch_support.h"
#include "pl_fs.h"

using namespace dispatch_test;

namespace {

const char kChromium[] = "/usr/bin/chromium";

std::string RunAndCapture(const std::string& command) {
  std::string out;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out.append(buf, n);
  pclose(pipe);
  return out;
}

TEST(BrowserTest, StaticApplicationLoadsCompletely) {
  if (!PlIsFile(kChromium)) GTEST_SKIP() << "chromium is not installed";

  std::string app = std::string(LUMETTA_SOURCE_DIR) + "/tests/data/static_app";
  TestServer server(app);
  server.Srv().DefDocs.Add("index.html");
  server.AddCommonMimeTypes();
  server.Start();

  ScratchDir profile;
  std::string url = "http://127.0.0.1:" + std::to_string(server.Port()) + "/";
  std::string command = std::string("timeout 90 ") + kChromium +
                        " --headless --no-sandbox --disable-gpu --no-first-run"
                        " --disable-background-networking --disable-component-update --disable-sync"
                        " --user-data-dir=" + profile.Path() +
                        " --virtual-time-budget=10000 --dump-dom " + url + " 2>/dev/null";
  std::string dom = RunAndCapture(command);

  EXPECT_NE(dom.find("RESULT css=ok js=ok json=ok png=ok sub=ok svg=ok"), std::string::npos) << dom;
  for (const char* resource : {"/index.html", "/css/style.css", "/js/lib.js", "/js/app.js",
                               "/img/logo.png", "/img/icon.svg", "/data/info.json",
                               "/sub/index.html"})
    EXPECT_TRUE(server.WaitLog("GET \"" + std::string(resource) + "\"")) << resource;
}

}  // namespace
