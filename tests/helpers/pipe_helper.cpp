// A small child program for the pipe stream and gateway tests.
// The first argument picks what it does; the tests check what comes back.
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#ifdef _WIN32
#include <fcntl.h>
#include <io.h>
#include <windows.h>
#else
#include <unistd.h>
#endif

extern char** environ;

// A real access violation (not a raised signal), so that a debugger-watched
// child reports it the way a crashing interpreter would. The pointer is read
// through volatile, so the compiler cannot turn the store into a trap.
static void Crash() {
  volatile int* volatile target = nullptr;
  *target = 1;
}

// The tests compare bytes: Windows' text mode would add a CR before each LF.
// A crash must end the program at once, without the system's crash dialog or
// debugger (wine starts one, which outlasts the tests' time limits).
static void QuietWindowsRunTime() {
#ifdef _WIN32
  _setmode(_fileno(stdin), _O_BINARY);
  _setmode(_fileno(stdout), _O_BINARY);
  _setmode(_fileno(stderr), _O_BINARY);
  SetErrorMode(SEM_FAILCRITICALERRORS | SEM_NOGPFAULTERRORBOX);
  // Wine ignores the error mode and starts its debugger, which holds the
  // output pipe open: end here instead (a watching debugger still sees the
  // crash first).
  SetUnhandledExceptionFilter([](EXCEPTION_POINTERS*) -> LONG { return EXCEPTION_EXECUTE_HANDLER; });
#endif
}

// POSIX only: a grandchild that holds the output open as long, to show that a
// time-out ends the whole process group. Windows has no such group to end.
static void ForkGrandchild() {
#ifndef _WIN32
  fork();
#endif
}

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
  QuietWindowsRunTime();
  std::string mode = argc > 1 ? argv[1] : "";
  const char* arg = argc > 2 ? argv[2] : "";
  if (mode == "exit") return atoi(arg);
  if (mode == "crash") Crash();
  if (mode == "signal") raise(atoi(arg));  // ends by the numbered signal (POSIX)
  if (mode == "print") return Out(Unescape(arg));
  if (mode == "both") {  // the first text to the output, the second to the error output
    Out(Unescape(arg));
    fflush(stdout);
    std::string err = Unescape(argc > 3 ? argv[3] : "");
    fwrite(err.data(), 1, err.size(), stderr);
    return 0;
  }
  if (mode == "slow") {  // a CGI page that writes a little, then hangs
    Out("Content-Type: text/plain\r\n\r\npartial\n");
    fflush(stdout);
    std::this_thread::sleep_for(std::chrono::seconds(20));
    return Out("late\n");
  }
  if (mode == "sleep") {  // with a grandchild that holds the output open as long
    ForkGrandchild();
    std::this_thread::sleep_for(std::chrono::seconds(atoi(arg)));
    return 0;
  }
  if (mode == "args") {  // each argument after the mode in brackets
    for (int i = 2; i < argc; i++) Out(std::string("[") + argv[i] + "]\n");
    return 0;
  }
  if (mode == "env") {  // the environment, one variable a line
    for (char** e = environ; e && *e; e++) Out(std::string(*e) + "\n");
    return 0;
  }
  if (mode == "cwd") {  // the working directory, one line, into the file named
    std::string dir = std::filesystem::current_path().string() + "\n";
    FILE* f = fopen(arg, "wb");
    if (!f) return 1;
    fwrite(dir.data(), 1, dir.size(), f);
    return fclose(f) == 0 ? 0 : 1;
  }
  if (mode == "cgi-echo") {  // a CGI reply: its environment, a blank line, then its input
    // CONTENT_LENGTH bytes first, as an interpreter does: the gateway writes
    // the whole body before it reads, and keeps the input open.
    const char* length = getenv("CONTENT_LENGTH");
    std::string input(length ? size_t(atol(length)) : 0, '\0');
    input.resize(fread(&input[0], 1, input.size(), stdin));
    Out("Content-Type: text/plain\r\n\r\n");
    for (char** e = environ; e && *e; e++) Out(std::string(*e) + "\n");
    return Out("\n" + input);
  }
  if (mode == "cat") {  // input to output until the input ends
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, stdin)) > 0;) fwrite(buf, 1, n, stdout);
    return 0;
  }
  return 2;
}
