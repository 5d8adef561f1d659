// A small child program for the pipe stream and gateway tests. The first
// argument picks what it does; the tests check what comes back.
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

extern char** environ;

// "\r", "\n", "\t" and "\\" in an argument stand for the control characters.
static std::string Unescape(const char* s) {
  std::string out;
  for (; *s; s++) {
    if (*s != '\\' || !s[1]) {
      out += *s;
      continue;
    }
    s++;
    out += *s == 'r' ? '\r' : *s == 'n' ? '\n' : *s == 't' ? '\t' : *s;
  }
  return out;
}

static void WriteAll(int fd, const std::string& s) {
  size_t done = 0;
  while (done < s.size()) {
    ssize_t w = write(fd, s.data() + done, s.size() - done);
    if (w <= 0) exit(3);
    done += (size_t)w;
  }
}

static int Echo() {  // copies standard input to standard output
  char buf[4096];
  ssize_t n;
  while ((n = read(0, buf, sizeof buf)) > 0) WriteAll(1, std::string(buf, (size_t)n));
  return 0;
}

int main(int argc, char** argv) {
  std::string mode = argc > 1 ? argv[1] : "";
  const char* arg = argc > 2 ? argv[2] : "";
  if (mode == "exit") return atoi(arg);
  if (mode == "sleep") {
    sleep((unsigned)atoi(arg));
    return 0;
  }
  if (mode == "crash") raise(SIGSEGV);
  if (mode == "abort") abort();
  if (mode == "print") {
    WriteAll(1, Unescape(arg));
    return 0;
  }
  if (mode == "stderr") {
    WriteAll(2, Unescape(arg));
    return 0;
  }
  if (mode == "echo") return Echo();
  if (mode == "line") {
    WriteAll(1, std::string((size_t)atoi(arg), 'x') + "\n");
    return 0;
  }
  if (mode == "env") {
    for (char** e = environ; *e; e++) WriteAll(1, std::string(*e) + "\n");
    return 0;
  }
  if (mode == "args") {  // each argument after the mode in brackets, one per line
    for (int i = 2; i < argc; i++) WriteAll(1, std::string("[") + argv[i] + "]\n");
    return 0;
  }
  if (mode == "pwd") {
    char cwd[4096];
    if (!getcwd(cwd, sizeof cwd)) return 4;
    WriteAll(1, std::string(cwd) + "\n");
    return 0;
  }
  if (mode == "nice") {
    errno = 0;
    int n = getpriority(PRIO_PROCESS, 0);
    WriteAll(1, std::to_string(n) + "\n");
    return 0;
  }
  if (mode == "orphan") {  // leaves a grandchild that holds the output open
    if (fork() == 0) {
      sleep((unsigned)atoi(arg));
      _exit(0);
    }
    sleep((unsigned)atoi(arg));
    return 0;
  }
  if (mode == "cgi-args") {  // a stand-in interpreter: shows its own command line
    WriteAll(1, "Content-Type: text/plain\r\n\r\n");
    for (int i = 2; i < argc; i++) WriteAll(1, std::string("[") + argv[i] + "]\n");
    return 0;
  }
  if (mode == "write-file") {  // write-file PATH WORDS...: records how it was started
    FILE* f = fopen(arg, "w");
    if (!f) return 5;
    char cwd[4096];
    fprintf(f, "cwd=%s\n", getcwd(cwd, sizeof cwd) ? cwd : "?");
    for (int i = 3; i < argc; i++) fprintf(f, "[%s]\n", argv[i]);
    fclose(f);
    return 0;
  }
  fprintf(stderr, "pipe_helper: unknown mode '%s'\n", mode.c_str());
  return 2;
}
