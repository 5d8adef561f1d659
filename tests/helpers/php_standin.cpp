// php-cgi.exe for the Windows test runs under wine, where no PHP for Windows
// exists. It is a relay: it hands its command line, its whole environment
// block, its directory and its standard input to php_relay.py on the Linux
// side, which runs the host's real php-cgi with them, and it gives back that
// interpreter's output and exit code as its own. So the Windows code under
// test (process creation, pipes, environment blocks, the gateway, the pool's
// transport) meets real PHP; PHP for Windows itself is not what is tested.
//
// The relay's port and key are read from "php-relay.port" beside this
// program, never from the environment: the gateway gives its child an exact
// environment, which must reach PHP unchanged.
//
// Wire format, both ways over one loopback connection: frames of a type
// byte, a 32-bit little-endian length and that many bytes. Ours: 'k' key,
// 'a' one argument, 'v' one variable, 'd' directory, 'g' go (header done),
// 'i' standard input, 'I' its end. The relay's: 'o' output, 'e' error
// output, 'x' the 32-bit exit code.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

SOCKET Relay = INVALID_SOCKET;
CRITICAL_SECTION SendLock;

bool SendAll(const char* p, int n) {
  while (n > 0) {
    int k = send(Relay, p, n, 0);
    if (k <= 0) return false;
    p += k;
    n -= k;
  }
  return true;
}

bool SendFrame(char type, const void* data, unsigned n) {
  char head[5] = {type, char(n), char(n >> 8), char(n >> 16), char(n >> 24)};
  EnterCriticalSection(&SendLock);
  bool ok = SendAll(head, 5) && SendAll(static_cast<const char*>(data), int(n));
  LeaveCriticalSection(&SendLock);
  return ok;
}

bool SendText(char type, const std::string& s) { return SendFrame(type, s.data(), unsigned(s.size())); }

bool RecvAll(char* p, int n) {
  while (n > 0) {
    int k = recv(Relay, p, n, 0);
    if (k <= 0) return false;
    p += k;
    n -= k;
  }
  return true;
}

int Fail(const char* what) {
  fprintf(stderr, "php-cgi stand-in: %s\n", what);
  return 255;
}

std::string ProgramDir() {
  char buf[MAX_PATH];
  DWORD n = GetModuleFileNameA(nullptr, buf, MAX_PATH);
  std::string path(buf, n);
  return path.substr(0, path.find_last_of("\\/") + 1);
}

bool ReadRelayAddress(unsigned short* port, std::string* key) {
  FILE* f = fopen((ProgramDir() + "php-relay.port").c_str(), "r");
  if (!f) return false;
  unsigned p = 0;
  char k[128] = {};
  bool ok = fscanf(f, "%u %127s", &p, k) == 2;
  fclose(f);
  *port = (unsigned short)p;
  *key = k;
  return ok && p > 0;
}

bool ConnectRelay(unsigned short port) {
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0) return false;
  Relay = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (Relay == INVALID_SOCKET) return false;
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return connect(Relay, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
}

// The command line split as the C run-time split it, the environment block
// as the parent built it.
bool SendHeader(const std::string& key, int argc, char** argv) {
  if (!SendText('k', key)) return false;
  for (int i = 0; i < argc; i++)
    if (!SendText('a', argv[i])) return false;
  char* block = GetEnvironmentStringsA();
  for (const char* v = block; v && *v; v += strlen(v) + 1)
    if (!SendText('v', v)) return false;
  FreeEnvironmentStringsA(block);
  char cwd[MAX_PATH];
  DWORD n = GetCurrentDirectoryA(MAX_PATH, cwd);
  return SendFrame('d', cwd, n) && SendFrame('g', "", 0);
}

DWORD WINAPI PumpStdin(void*) {
  HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
  char buf[65536];
  DWORD n = 0;
  while (in != INVALID_HANDLE_VALUE && in && ReadFile(in, buf, sizeof buf, &n, nullptr) && n > 0)
    if (!SendFrame('i', buf, n)) return 0;
  SendFrame('I', "", 0);
  return 0;
}

bool WriteHandle(DWORD which, const char* p, DWORD n) {
  HANDLE h = GetStdHandle(which);
  while (n > 0) {
    DWORD k = 0;
    if (!WriteFile(h, p, n, &k, nullptr) || k == 0) return false;
    p += k;
    n -= k;
  }
  return true;
}

// Copies the relay's frames to our streams until the exit code comes.
int RelayOutput() {
  std::string data;
  for (;;) {
    unsigned char head[5];
    if (!RecvAll(reinterpret_cast<char*>(head), 5)) return Fail("the relay went away");
    unsigned n = head[1] | head[2] << 8 | head[3] << 16 | unsigned(head[4]) << 24;
    data.resize(n);
    if (n && !RecvAll(&data[0], int(n))) return Fail("the relay went away");
    if (head[0] == 'x' && n == 4)
      return int(unsigned(data[0] & 0xff) | unsigned(data[1] & 0xff) << 8 | unsigned(data[2] & 0xff) << 16 |
                 unsigned(data[3] & 0xff) << 24);
    // A reader that stopped reading is not ours to worry about: keep
    // draining so the interpreter can finish.
    if (head[0] == 'o') WriteHandle(STD_OUTPUT_HANDLE, data.data(), n);
    if (head[0] == 'e') WriteHandle(STD_ERROR_HANDLE, data.data(), n);
  }
}

}  // namespace

int main(int argc, char** argv) {
  InitializeCriticalSection(&SendLock);
  unsigned short port = 0;
  std::string key;
  if (!ReadRelayAddress(&port, &key)) return Fail("no php-relay.port beside the program (is the relay running?)");
  if (!ConnectRelay(port)) return Fail("cannot reach the relay");
  if (!SendHeader(key, argc, argv)) return Fail("the relay refused the request");
  CloseHandle(CreateThread(nullptr, 0, PumpStdin, nullptr, 0, nullptr));
  int code = RelayOutput();
  fflush(stderr);
  ExitProcess(unsigned(code));
}
