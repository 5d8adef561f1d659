#include "loopback_peer.h"

#include <stdexcept>

namespace {
const unsigned kLoopback = 0x7F000001u;  // 127.0.0.1, host order
}

LoopbackListener::LoopbackListener() : Handle(PL_NO_SOCKET), PortNo(0) {
  PlNetStartup();
  Handle = PlSockTcp();
  if (Handle == PL_NO_SOCKET || !PlSockBind(Handle, kLoopback, 0) || !PlSockListen(Handle, 16) ||
      !PlSockLocalAddr(Handle, nullptr, &PortNo)) {
    Close();
    throw std::runtime_error("loopback listener failed");
  }
}

PlSocket LoopbackListener::Accept() { return PlSockAccept(Handle, nullptr, nullptr); }

void LoopbackListener::Close() {
  PlSockClose(Handle);
  Handle = PL_NO_SOCKET;
}

unsigned short ClosedLoopbackPort() {
  LoopbackListener l;
  return l.Port();
}

LoopbackPair::LoopbackPair() : Near(PL_NO_SOCKET), Far(PL_NO_SOCKET) {
  LoopbackListener listener;
  Near = PlSockTcp();
  // A loopback connect completes against the backlog; no accepting thread needed.
  if (Near == PL_NO_SOCKET || !PlSockConnect(Near, PlHtonl(kLoopback), listener.Port()))
    throw std::runtime_error("loopback connect failed");
  Far = listener.Accept();
  if (Far == PL_NO_SOCKET) throw std::runtime_error("loopback accept failed");
}

LoopbackPair::~LoopbackPair() {
  if (Sender.joinable()) Sender.join();
  PlSockClose(Near);
  PlSockClose(Far);
}

PlSocket LoopbackPair::TakeNear() {
  PlSocket s = Near;
  Near = PL_NO_SOCKET;
  return s;
}

bool LoopbackPair::Send(const std::string& data) {
  size_t sent = 0;
  while (sent < data.size()) {
    int r = PlSockSend(Far, data.data() + sent, static_cast<int>(data.size() - sent));
    if (r <= 0) return false;
    sent += static_cast<size_t>(r);
  }
  return true;
}

void LoopbackPair::SendLater(std::string data, bool closeAfter) {
  if (Sender.joinable()) Sender.join();  // one sender at a time, in order
  Sender = std::thread([this, data = std::move(data), closeAfter] {
    Send(data);
    if (closeAfter) PlSockShutdownSend(Far);
  });
}

std::string LoopbackPair::Receive(int timeoutSec) {
  std::string got;
  char buf[4096];
  while (PlSockWaitReadable(Far, timeoutSec) == 1) {
    int r = PlSockRecv(Far, buf, sizeof buf);
    if (r <= 0) break;
    got.append(buf, static_cast<size_t>(r));
  }
  return got;
}

void LoopbackPair::CloseFar() {
  PlSockClose(Far);
  Far = PL_NO_SOCKET;
}
