// Real TCP peers over 127.0.0.1 for tests: a listener on a port the system
// picks, and a connected pair whose far end the test drives by hand.
#ifndef LUMETTA_TESTS_LOOPBACK_PEER_H
#define LUMETTA_TESTS_LOOPBACK_PEER_H

#include <string>
#include <thread>

#include "pl_net.h"

class LoopbackListener {
 public:
  LoopbackListener();  // throws std::runtime_error when it can't listen
  ~LoopbackListener() { Close(); }
  LoopbackListener(const LoopbackListener&) = delete;
  LoopbackListener& operator=(const LoopbackListener&) = delete;

  unsigned short Port() const { return PortNo; }
  PlSocket Accept();  // blocks; the caller owns the result
  void Close();

 private:
  PlSocket Handle;
  unsigned short PortNo;
};

// A port on 127.0.0.1 on which nothing listens (it was free a moment ago).
unsigned short ClosedLoopbackPort();

// Near is meant for the code under test, Far for the test itself.
class LoopbackPair {
 public:
  LoopbackPair();
  ~LoopbackPair();  // waits for SendLater, closes what is still owned
  LoopbackPair(const LoopbackPair&) = delete;
  LoopbackPair& operator=(const LoopbackPair&) = delete;

  PlSocket TakeNear();  // hands Near over, e.g. to a CSocket
  bool Send(const std::string& data);  // all of it, from Far
  // Sends from a thread (for more than the socket buffers hold), then
  // optionally closes Far.
  void SendLater(std::string data, bool closeAfter);
  // What Far receives until the end of input or timeoutSec of silence.
  std::string Receive(int timeoutSec = 5);
  void CloseFar();

  PlSocket Near;
  PlSocket Far;

 private:
  std::thread Sender;
};

#endif
