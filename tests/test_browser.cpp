// ctest-labels: nosan
// A real browser as the server's client: headless Chromium loads the static
// application under tests/data/static_app, whose own script checks that the
// style sheet, scripts, images, a JSON fetch and a redirected sub-directory
// all arrived, and writes the outcome into the page.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "pl_fs.h"
#include "portable.h"
#include "server_support.h"

using namespace srvtest;

namespace {

const char kChromium[] = "/usr/bin/chromium";

TEST(BrowserTest, StaticApplicationLoadsCompletely) {
  SKIP_ON_WINDOWS("drives the host's Chromium, a Linux program (no page renders under wine)");
  if (!PlIsFile(kChromium)) GTEST_SKIP() << "chromium is not installed";
  TestServer server(std::string(LUMETTA_SOURCE_DIR) + "/tests/data/static_app");
  server.Srv().DefDocs.Add("index.html");
  server.AddCommonMimeTypes();
  server.Start();

  ScratchDir profile;
  std::string command = std::string("timeout 90 ") + kChromium +
                        " --headless --no-sandbox --disable-gpu --no-first-run"
                        " --disable-background-networking --disable-component-update --disable-sync"
                        " --user-data-dir=" + profile.Path() + " --virtual-time-budget=10000 --dump-dom"
                        " http://127.0.0.1:" + std::to_string(server.Port()) + "/ 2>/dev/null";
  std::string dom;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, pipe)) > 0;) dom.append(buf, n);
    pclose(pipe);
  }
  EXPECT_NE(dom.find("RESULT css=ok js=ok json=ok png=ok sub=ok svg=ok"), std::string::npos) << dom;
  for (const char* resource : {"/index.html", "/css/style.css", "/js/lib.js", "/js/app.js",
                               "/img/logo.png", "/img/icon.svg", "/data/info.json", "/sub/index.html"})
    EXPECT_TRUE(server.WaitLog("GET \"" + std::string(resource) + "\"")) << resource;
}

}  // namespace
