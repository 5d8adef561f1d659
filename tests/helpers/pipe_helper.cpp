// A small child program for the pipe stream and gateway tests.
// The first argument picks what it does; the tests check what comes back.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

// "\r", "\n" and "\\" in an argument stand for the control characters.
static std::string Unescape(const char* s) {
  std::string out;
  for (; *s; s++) out += (*s == '\\' && s[1]) ? (*++s == 'r' ? '\r' : *s == 'n' ? '\n' : *s) : *s;
  return out;
}

static int Out(const std::string& s) {
  fwrite(s.data(), 1, s.size(), stdout);
  return 0;
}

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  const char* arg = argc > 2 ? argv[2] : "";
  if (mode == "exit") return atoi(arg);
  if (mode == "crash") raise(SIGSEGV);
  if (mode == "signal") raise(atoi(arg));  // ends by the numbered signal
  if (mode == "print") return Out(Unescape(arg));
  if (mode == "both") {  // the first text to the output, the second to the error output
    Out(Unescape(arg));
    fflush(stdout);
    std::string err = Unescape(argc > 3 ? argv[3] : "");
    fwrite(err.data(), 1, err.size(), stderr);
    return 0;
  }
  if (mode == "sleep") {  // with a grandchild that holds the output open as long
    fork();
    sleep((unsigned)atoi(arg));
    return 0;
  }
  if (mode == "args") {  // each argument after the mode in brackets
    for (int i = 2; i < argc; i++) Out(std::string("[") + argv[i] + "]\n");
    return 0;
  }
  return 2;
}
