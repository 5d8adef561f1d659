// Real TCP peers over 127.0.0.1 for tests: a listener on a port the system
// picks, and a connected pair whose far end the test drives by hand.
#ifndef LUMETTA_TESTS_LOOPBACK_PEER_H
#define LUMETTA_TESTS_LOOPBACK_PEER_H

#include <string>

#include "pl_net.h"

class LoopbackListener {
 public:
  LoopbackListener();  // throws std::runtime_error when it can't listen
  ~LoopbackListener() { PlSockClose(Handle); }
  unsigned short Port() const { return PortNo; }
  PlSocket Accept() { return PlSockAccept(Handle, nullptr, nullptr); }  // caller owns it

 private:
  PlSocket Handle = PL_NO_SOCKET;
  unsigned short PortNo = 0;
};

// A port on 127.0.0.1 on which nothing listens (it was free a moment ago).
inline unsigned short ClosedLoopbackPort() { return LoopbackListener().Port(); }

// Near is meant for the code under test (TakeNear hands it over), Far for the
// test itself.
struct LoopbackPair {
  LoopbackPair();
  ~LoopbackPair();
  PlSocket TakeNear();
  bool Send(const std::string& data);  // all of it, from Far
  void CloseFar();

  PlSocket Near = PL_NO_SOCKET;
  PlSocket Far = PL_NO_SOCKET;
};

#endif
