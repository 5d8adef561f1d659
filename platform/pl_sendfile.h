// Server-side platform helpers: copying an open file straight to a socket,
// shutting a socket down both ways (which also wakes a thread blocked in
// accept on it), switching off send coalescing and the default document root.
#ifndef LUMETTA_PL_SENDFILE_H
#define LUMETTA_PL_SENDFILE_H

#include "pl_fs.h"
#include "pl_net.h"

// Sends the first len bytes of the freshly opened file f to s without a
// user-space copy where the platform allows it; f is only fit for closing
// afterwards. Returns the number of bytes sent, or -1 when the socket failed
// (a file that ends early ends the copy).
long long PlSendFile(PlSocket s, PlFile f, long long len);
// Shuts s down for sending and receiving. On a listening socket this makes
// a blocked accept return at once, which closing alone does not do on Linux.
void PlSockShutdownBoth(PlSocket s);
// Holds back partial segments until the socket is closed (or a short
// platform delay passes), so that a reply written in pieces leaves in as few
// packets as possible.
bool PlSockCork(PlSocket s);
// The file-system root used when no home directory is configured.
const char* PlRootDir();

#endif
