#include "extras_rawpeer.h"

ExtrasRawPeer::ExtrasRawPeer(std::vector<std::string> replies)
    : Replies(std::move(replies)), Listener(PlSockTcp()), ListenPort(0), Thread(nullptr) {
  unsigned addr = 0;
  if (Listener == PL_NO_SOCKET || !PlSockBind(Listener, 0x7f000001u, 0) || !PlSockListen(Listener, 8) ||
      !PlSockLocalAddr(Listener, &addr, &ListenPort))
    return;
  Thread = PlThreadStart(Run, this);
}

ExtrasRawPeer::~ExtrasRawPeer() {
  PlSockClose(Listener);
  if (Thread) {
    PlThreadWait(Thread, PL_INFINITE);
    PlThreadClose(Thread);
  }
}

std::vector<std::string> ExtrasRawPeer::Requests() {
  PlLock hold(Lock);
  return Received;
}

unsigned ExtrasRawPeer::Run(void* arg) {
  ExtrasRawPeer* self = static_cast<ExtrasRawPeer*>(arg);
  for (const std::string& reply : self->Replies) {
    PlSocket conn = PlSockAccept(self->Listener, nullptr, nullptr);
    if (conn == PL_NO_SOCKET) break;
    self->Serve(conn, reply);
    PlSockClose(conn);
  }
  return 0;
}

void ExtrasRawPeer::Serve(PlSocket conn, const std::string& reply) {
  std::string head;
  char buf[1024];
  while (head.find("\r\n\r\n") == std::string::npos && PlSockWaitReadable(conn, 5) == 1) {
    int n = PlSockRecv(conn, buf, sizeof buf);
    if (n <= 0) break;
    head.append(buf, (size_t)n);
  }
  {
    PlLock hold(Lock);
    Received.push_back(head);
  }
  size_t start = 0;
  for (;;) {
    size_t mark = reply.find('\x01', start);
    std::string part = reply.substr(start, mark == std::string::npos ? std::string::npos : mark - start);
    if (!part.empty() && PlSockSend(conn, part.data(), (int)part.size()) < 0) return;
    if (mark == std::string::npos) return;
    PlSleepMs(20);
    start = mark + 1;
  }
}
