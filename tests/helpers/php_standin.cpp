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
// With "-b \\.\pipe\NAME" it is a FastCGI worker as php-cgi.exe is one: the
// relay starts a FastCGI php-cgi on the host for it, and it makes the named
// pipe and carries each connection to that interpreter over a loopback
// connection of its own. The host's interpreter ends with this program.
//
// Wire format, both ways over one loopback connection: frames of a type
// byte, a 32-bit little-endian length and that many bytes. Ours: 'k' key,
// 'a' one argument, 'v' one variable, 'd' directory, 'g' go (header done),
// 'i' standard input, 'I' its end; or 'k' key, 'w' worker, 'g', and then
// the bytes of one FastCGI connection as they are. The relay's: 'o' output,
// 'e' error output, 'r' the worker is ready (its name), 'x' the 32-bit exit
// code.
#include <winsock2.h>
#include <windows.h>

#include <cstdio>
#include <cstring>
#include <string>

namespace {

SOCKET Relay = INVALID_SOCKET;
CRITICAL_SECTION SendLock;

bool SendAll(const char* p, int n, SOCKET to = Relay) {
  while (n > 0) {
    int k = send(to, p, n, 0);
    if (k <= 0) return false;
    p += k;
    n -= k;
  }
  return true;
}

bool SendFrame(char type, const void* data, unsigned n, SOCKET to = Relay) {
  char head[5] = {type, char(n), char(n >> 8), char(n >> 16), char(n >> 24)};
  EnterCriticalSection(&SendLock);
  bool ok = SendAll(head, 5, to) && SendAll(static_cast<const char*>(data), int(n), to);
  LeaveCriticalSection(&SendLock);
  return ok;
}

bool SendText(char type, const std::string& s, SOCKET to = Relay) {
  return SendFrame(type, s.data(), unsigned(s.size()), to);
}

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

unsigned short RelayPort;
std::string RelayKey;

SOCKET ConnectRelay() {
  SOCKET s = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (s == INVALID_SOCKET) return s;
  sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(RelayPort);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(s, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return s;
  closesocket(s);
  return INVALID_SOCKET;
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

// Copies the relay's frames to our streams until the exit code comes; a
// ready worker's name goes to onReady.
int RelayOutput(void (*onReady)(const std::string&) = nullptr) {
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
    if (head[0] == 'r' && onReady) onReady(data);
  }
}

// ------------------------------------------------------------ FastCGI worker

std::string PipeName, WorkerName;

// Blocking transfer on a pipe opened for overlapped I/O, so that one thread
// can read while another writes.
bool PipeIo(HANDLE pipe, bool write, char* buf, DWORD n, DWORD* done) {
  OVERLAPPED ov = {};
  ov.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
  bool ok = write ? WriteFile(pipe, buf, n, nullptr, &ov) : ReadFile(pipe, buf, n, nullptr, &ov);
  ok = (ok || GetLastError() == ERROR_IO_PENDING) && GetOverlappedResult(pipe, &ov, done, TRUE);
  CloseHandle(ov.hEvent);
  return ok;
}

struct Bridge {
  HANDLE Pipe;
  SOCKET Sock;
};
volatile LONG ActiveBridges = 0;

// The client's bytes to the interpreter, until the client closes its end.
DWORD WINAPI PipeToRelay(void* arg) {
  Bridge* b = static_cast<Bridge*>(arg);
  char buf[65536];
  DWORD n = 0;
  while (PipeIo(b->Pipe, false, buf, sizeof buf, &n) && n > 0)
    if (!SendAll(buf, int(n), b->Sock)) break;
  shutdown(b->Sock, SD_SEND);
  return 0;
}

// One connection of the pipe's client, carried to the interpreter and back.
DWORD WINAPI Carry(void* arg) {
  Bridge* b = static_cast<Bridge*>(arg);
  b->Sock = ConnectRelay();
  if (b->Sock != INVALID_SOCKET && SendText('k', RelayKey, b->Sock) && SendText('w', WorkerName, b->Sock) &&
      SendFrame('g', "", 0, b->Sock)) {
    HANDLE up = CreateThread(nullptr, 0, PipeToRelay, b, 0, nullptr);
    char buf[65536];
    int n;
    DWORD done;
    while ((n = recv(b->Sock, buf, sizeof buf, 0)) > 0)
      if (!PipeIo(b->Pipe, true, buf, DWORD(n), &done)) break;
    FlushFileBuffers(b->Pipe);  // the client reads the reply before its end
    CancelIoEx(b->Pipe, nullptr);
    WaitForSingleObject(up, INFINITE);
    CloseHandle(up);
  }
  if (b->Sock != INVALID_SOCKET) closesocket(b->Sock);
  CloseHandle(b->Pipe);
  delete b;
  InterlockedDecrement(&ActiveBridges);
  return 0;
}

// An interpreter that died mid-request had written its output before: let
// the connections in flight deliver it before this program ends too.
void DrainBridges() {
  for (int i = 0; i < 500 && ActiveBridges > 0; i++) Sleep(10);
}

// Serves the named pipe once the host's interpreter is ready: one instance
// per client, each carried by a thread of its own.
DWORD WINAPI ServePipe(void*) {
  for (;;) {
    HANDLE pipe = CreateNamedPipeA(PipeName.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                                   PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT, PIPE_UNLIMITED_INSTANCES,
                                   65536, 65536, 0, nullptr);
    if (pipe == INVALID_HANDLE_VALUE) ExitProcess(unsigned(Fail("cannot make the named pipe")));
    OVERLAPPED ov = {};
    ov.hEvent = CreateEventA(nullptr, TRUE, FALSE, nullptr);
    DWORD n;
    bool connected = ConnectNamedPipe(pipe, &ov) || GetLastError() == ERROR_PIPE_CONNECTED ||
                     (GetLastError() == ERROR_IO_PENDING && GetOverlappedResult(pipe, &ov, &n, TRUE));
    CloseHandle(ov.hEvent);
    if (!connected) {
      CloseHandle(pipe);
      continue;
    }
    InterlockedIncrement(&ActiveBridges);
    CloseHandle(CreateThread(nullptr, 0, Carry, new Bridge{pipe, INVALID_SOCKET}, 0, nullptr));
  }
}

void WorkerReady(const std::string& name) {
  WorkerName = name;
  CloseHandle(CreateThread(nullptr, 0, ServePipe, nullptr, 0, nullptr));
}

// A test may make a worker fail: "php-cgi.worker" beside the program holds
// the exit code on its first line and, after it, what to write instead of
// serving. -1 when there is no such file.
int ScriptedWorkerExit() {
  FILE* f = fopen((ProgramDir() + "php-cgi.worker").c_str(), "rb");
  if (!f) return -1;
  int code = 0;
  if (fscanf(f, "%d", &code) != 1) code = 1;
  fgetc(f);  // the line's end
  char buf[4096];
  size_t n = fread(buf, 1, sizeof buf, f);
  fclose(f);
  WriteHandle(STD_OUTPUT_HANDLE, buf, DWORD(n));
  return code;
}

std::string PipeArgument(int argc, char** argv) {
  for (int i = 1; i + 1 < argc; i++)
    if (strcmp(argv[i], "-b") == 0) return argv[i + 1];
  return "";
}

}  // namespace

int main(int argc, char** argv) {
  InitializeCriticalSection(&SendLock);
  PipeName = PipeArgument(argc, argv);
  int scripted = PipeName.empty() ? -1 : ScriptedWorkerExit();
  if (scripted >= 0) return scripted;
  if (!ReadRelayAddress(&RelayPort, &RelayKey))
    return Fail("no php-relay.port beside the program (is the relay running?)");
  WSADATA wsa;
  if (WSAStartup(MAKEWORD(2, 2), &wsa) != 0 || (Relay = ConnectRelay()) == INVALID_SOCKET)
    return Fail("cannot reach the relay");
  if (!SendHeader(RelayKey, argc, argv)) return Fail("the relay refused the request");
  // A worker takes its requests from the pipe; its standard input is not ours to read.
  if (PipeName.empty()) CloseHandle(CreateThread(nullptr, 0, PumpStdin, nullptr, 0, nullptr));
  int code = RelayOutput(PipeName.empty() ? nullptr : WorkerReady);
  DrainBridges();
  fflush(stderr);
  ExitProcess(unsigned(code));
}
