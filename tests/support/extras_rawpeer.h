// A tiny scripted HTTP peer on 127.0.0.1: each accepted connection gets the
// next canned reply, written as it stands (split into parts with a short
// pause between them when the reply holds "\x01" markers), after the
// request head has been read. The connection is then closed.
#ifndef LUMETTA_EXTRAS_RAWPEER_H
#define LUMETTA_EXTRAS_RAWPEER_H

#include <string>
#include <vector>

#include "pl_net.h"
#include "pl_thread.h"

class ExtrasRawPeer {
 public:
  explicit ExtrasRawPeer(std::vector<std::string> replies);
  ~ExtrasRawPeer();  // stops listening and waits for the thread
  ExtrasRawPeer(const ExtrasRawPeer&) = delete;
  ExtrasRawPeer& operator=(const ExtrasRawPeer&) = delete;

  unsigned short Port() const { return ListenPort; }
  // Request heads received so far, in order.
  std::vector<std::string> Requests();

 private:
  std::vector<std::string> Replies;
  std::vector<std::string> Received;
  PlMutex Lock;
  PlSocket Listener;
  unsigned short ListenPort;
  PlThread* Thread;

  static unsigned Run(void* self);
  void Serve(PlSocket conn, const std::string& reply);
};

#endif
