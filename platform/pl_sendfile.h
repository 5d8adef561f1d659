// Copying an open file straight to a socket, the one step of serving a file
// that each platform does its own way.
#ifndef LUMETTA_PL_SENDFILE_H
#define LUMETTA_PL_SENDFILE_H

#include "pl_fs.h"
#include "pl_net.h"

// Sends the first len bytes of the freshly opened file f to s without a
// user-space copy where the platform allows it; f is only fit for closing
// afterwards. Returns the number of bytes sent, or -1 when the socket failed
// (a file that ends early ends the copy).
long long PlSendFile(PlSocket s, PlFile f, long long len);

#endif
