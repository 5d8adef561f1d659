// TCP peers over 127.0.0.1 for the socket tests.
#include "loopback_peer.h"

#include <stdexcept>

namespace {
const unsigned kLoopback = 0x7F000001u;  // 127.0.0.1, host order
}

LoopbackListener::LoopbackListener() {
  PlNetStartup();
  Handle = PlSockTcp();
  if (Handle == PL_NO_SOCKET || !PlSockBind(Handle, kLoopback, 0) || !PlSockListen(Handle, 16) ||
      !PlSockLocalAddr(Handle, nullptr, &PortNo)) {
    PlSockClose(Handle);
    throw std::runtime_error("loopback listener failed");
  }
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
