// ctest-labels: nosan
// A real browser as the server's client: headless Chromium loads the static
// application under tests/data/static_app, whose own script checks that the
// style sheet, scripts, images, a JSON fetch and a redirected sub-directory
// all arrived, and writes the outcome into the page. The browser opens the
// address lumetta-serve prints, so it gets in through the access key.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "pl_fs.h"
#include "test_support.h"

using namespace testsup;

namespace {

const char kChromium[] = "/usr/bin/chromium";

TEST(BrowserTest, StaticApplicationLoadsCompletelyThroughTheKey) {
  SKIP_ON_WINDOWS("drives the host's Chromium, a Linux program (no page renders under wine)");
  if (!PlIsFile(kChromium)) GTEST_SKIP() << "chromium is not installed";
  const std::string serve = std::string(LUMETTA_BINARY_DIR) + "/shell/lumetta-serve";
  if (!PlIsFile(serve.c_str())) GTEST_SKIP() << "lumetta-serve is not built";
  TempDir work;
  std::random_device rd;
  work.Write("app.ini", "[Lumetta]\nHOMEDIR=" + std::string(LUMETTA_SOURCE_DIR) +
                            "/tests/data/static_app\nPORT=" + std::to_string(20000 + rd() % 30000) + "\n");
  // The server's first line is the address; the browser opens exactly that.
  std::string script =
      "'" + serve + "' /INI '" + work.Join("app.ini") + "' > '" + work.Join("out") + "' 2>/dev/null & pid=$!; "
      "for i in $(seq 100); do [ -s '" + work.Join("out") + "' ] && break; sleep 0.1; done; "
      "url=$(head -1 '" + work.Join("out") + "'); "
      "timeout 90 " + kChromium +
      " --headless --no-sandbox --disable-gpu --no-first-run"
      " --disable-background-networking --disable-component-update --disable-sync"
      " --user-data-dir=" + work.MakeDir("profile") + " --virtual-time-budget=10000 --dump-dom"
      " \"$url\" 2>/dev/null; kill $pid; wait $pid";
  work.Write("run.sh", script);
  std::string command = "sh '" + work.Join("run.sh") + "'";
  std::string dom;
  RunCommand(command, &dom);
  std::string url = work.Read("out");
  url = url.substr(0, url.find('\n'));
  EXPECT_NE(url.find("/?lumetta_key="), std::string::npos) << url;
  EXPECT_NE(dom.find("RESULT css=ok js=ok json=ok png=ok sub=ok svg=ok"), std::string::npos) << dom;
}

}  // namespace
