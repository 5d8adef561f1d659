// Real TCP peers over 127.0.0.1 for the tests: a listener on a port the
// system picks, a connected pair, and a server that plays canned replies.
#include <sstream>
#include <stdexcept>

#include "test_support.h"

namespace testsup {

LoopbackListener::LoopbackListener() {
  PlNetStartup();
  Handle = PlSockTcp();
  if (Handle == PL_NO_SOCKET || !PlSockBind(Handle, kLoopback, 0) || !PlSockListen(Handle, 16) ||
      !PlSockLocalAddr(Handle, nullptr, &PortNo)) {
    PlSockClose(Handle);
    throw std::runtime_error("loopback listener failed");
  }
}

void LoopbackListener::Close() {
  if (!Closed) PlSockClose(Handle);
  Closed = true;
}

LoopbackPair::LoopbackPair() {
  LoopbackListener listener;
  Near = PlSockTcp();
  // A loopback connect completes against the backlog; no accepting thread needed.
  if (Near == PL_NO_SOCKET || !PlSockConnect(Near, PlHtonl(kLoopback), listener.Port()) ||
      (Far = listener.Accept()) == PL_NO_SOCKET) {
    PlSockClose(Near);
    throw std::runtime_error("loopback pair failed");
  }
}

LoopbackPair::~LoopbackPair() {
  PlSockClose(Near);
  PlSockClose(Far);
}

PlSocket LoopbackPair::TakeNear() {
  PlSocket s = Near;
  Near = PL_NO_SOCKET;
  return s;
}

bool LoopbackPair::Send(const std::string& data) {
  for (size_t sent = 0; sent < data.size();) {
    int r = PlSockSend(Far, data.data() + sent, static_cast<int>(data.size() - sent));
    if (r <= 0) return false;
    sent += static_cast<size_t>(r);
  }
  return true;
}

void LoopbackPair::CloseFar() {
  PlSockClose(Far);
  Far = PL_NO_SOCKET;
}

ScriptedPeer::ScriptedPeer(std::vector<std::string> replies) : Replies(std::move(replies)) {
  Thread = PlThreadStart(Run, this);
}

ScriptedPeer::~ScriptedPeer() {
  Listener.Close();
  if (Thread) PlThreadWait(Thread, PL_INFINITE), PlThreadClose(Thread);
}

std::vector<std::string> ScriptedPeer::Requests() {
  PlLock hold(Lock);
  return Received;
}

unsigned ScriptedPeer::Run(void* arg) {
  ScriptedPeer* self = static_cast<ScriptedPeer*>(arg);
  for (const std::string& reply : self->Replies) {
    PlSocket conn = self->Listener.Accept();
    if (conn == PL_NO_SOCKET) break;
    self->Serve(conn, reply);
    PlSockClose(conn);
  }
  return 0;
}

void ScriptedPeer::Serve(PlSocket conn, const std::string& reply) {
  std::string head;
  char buf[1024];
  int n;
  while (head.find("\r\n\r\n") == std::string::npos && PlSockWaitReadable(conn, 5) == 1 &&
         (n = PlSockRecv(conn, buf, sizeof buf)) > 0)
    head.append(buf, (size_t)n);
  {
    PlLock hold(Lock);
    Received.push_back(head);
  }
  std::istringstream parts(reply);
  for (std::string part; std::getline(parts, part, '\x01'); PlSleepMs(20))
    if (!part.empty() && PlSockSend(conn, part.data(), (int)part.size()) < 0) return;
}

}  // namespace testsup
