// BSD-style TCP sockets over IPv4. Addresses are 32-bit values in network
// byte order unless a name says otherwise; ports are in host order.
#ifndef LUMETTA_PL_NET_H
#define LUMETTA_PL_NET_H

#include <string>

#include "pl_fs.h"  // PlFile

typedef unsigned long long PlSocket;
// "No socket". Not 0: on POSIX descriptor 0 is a valid socket.
const PlSocket PL_NO_SOCKET = ~0ULL;

bool PlNetStartup();  // socket layer up (WinSock 2.0 on Windows)
void PlNetCleanup();
// Makes a write to a peer that has gone away fail with an error instead of
// ending the process (POSIX raises SIGPIPE; it is ignored from then on, and
// child processes inherit that). Called by PlNetStartup and by every call
// below that creates a socket; harmless to call again.
void PlNetNoSigPipe();

// Sockets are created close-on-exec, so child processes never hold a
// connection open.
PlSocket PlSockTcp();  // PL_NO_SOCKET on failure
// Allows rebinding a port still in TIME_WAIT, never sharing a port that
// another socket is listening on.
bool PlSockBind(PlSocket s, unsigned addrHostOrder, unsigned short port);
bool PlSockListen(PlSocket s, int backlog);
// Lets accept return a connection only once its first bytes have arrived
// (or after about maxWaitSec), so that the reader never waits for them.
// False where the system has no such option.
bool PlSockDeferAccept(PlSocket s, int maxWaitSec);
// Blocks for the next connection; PL_NO_SOCKET once the listener is closed.
// Failures that concern one connection only are retried. The new socket
// sends small writes at once unless the caller corks it (PlSockCork) or
// switches Nagle's delay off (PlSockNoDelay).
PlSocket PlSockAccept(PlSocket s, unsigned* remoteAddr, unsigned short* remotePort);
bool PlSockLocalAddr(PlSocket s, unsigned* addr, unsigned short* port);
bool PlSockConnect(PlSocket s, unsigned addr, unsigned short port);
// Waits until the socket is readable (data, end of input or an error):
// 1 ready, 0 time-out, -1 error. A negative time-out waits without limit.
int PlSockWaitReadable(PlSocket s, int timeoutSec);
// The same with a time-out in milliseconds, for waits cut short by a
// deadline. A writable wait (forWrite) serves non-blocking handshakes.
int PlSockWaitMs(PlSocket s, bool forWrite, int timeoutMs);
// Switches between blocking and non-blocking transfers.
bool PlSockSetNonBlocking(PlSocket s, bool on);
// What PlSockPoll waits for and reports.
const int PL_SOCK_IN = 1;   // readable: data, end of input or an error
const int PL_SOCK_OUT = 2;  // writable without blocking
// Waits at most timeoutMs (negative: no limit) for either direction at
// once: the ready bits, 0 on time-out, -1 on error.
int PlSockPoll(PlSocket s, int events, int timeoutMs);
// Sends what fits now without blocking: bytes sent, 0 when nothing fits,
// -1 on failure.
int PlSockSendSome(PlSocket s, const void* buf, int n);
// Time-out of the blocking receive itself (0: none). Used where the wait
// above can't be, e.g. under a TLS library that receives on its own.
bool PlSockSetRecvTimeout(PlSocket s, int timeoutSec);
// The same in milliseconds, for a receive that waits in slices of a
// deadline instead of polling before each read.
bool PlSockSetRecvTimeoutMs(PlSocket s, int timeoutMs);
int PlSockSend(PlSocket s, const void* buf, int n);  // -1 on failure
int PlSockRecv(PlSocket s, void* buf, int n);        // -1 on failure, 0 at end
// A receive that never waits: what has arrived, 0 at the end, -1 on failure,
// PL_SOCK_NOTHING_YET when nothing is there (where the system can't say,
// also then), so a caller waits only when it must.
const int PL_SOCK_NOTHING_YET = -2;
int PlSockRecvNoWait(PlSocket s, void* buf, int n);
// A blocking receive on a socket with a receive time-out: as PlSockRecv,
// but PL_SOCK_NOTHING_YET when the time-out passed with nothing received.
// (On Windows such a socket is fit only to be closed afterwards.)
int PlSockRecvTimed(PlSocket s, void* buf, int n);
// Sends each small write at once instead of waiting for the peer's
// acknowledgement of the previous one.
bool PlSockNoDelay(PlSocket s);
void PlSockShutdownSend(PlSocket s);
// Shuts s down for sending and receiving. On a listening socket this makes
// a blocked accept return at once, which closing alone does not do on Linux.
void PlSockShutdownBoth(PlSocket s);
// Holds back partial segments until the socket is closed (or a short
// platform delay passes), so that a reply written in pieces leaves in as few
// packets as possible. False where the platform has no such switch.
bool PlSockCork(PlSocket s);
// Closes the socket; a listening socket's blocked accept returns first.
void PlSockClose(PlSocket s);
// Closes only our own handle: a listening socket handed to a child process
// goes on listening there.
void PlSockCloseHandle(PlSocket s);
// Local stream connections to helper processes on this machine only: on
// POSIX Unix-domain sockets named by a path in a private directory, on
// Windows named pipes with a random name. PlSockPoll, PlSockSend,
// PlSockSendSome, PlSockRecv and PlSockClose work on both.
//
// The name of a new local endpoint called `name`, in the private directory
// dir (POSIX) or as a pipe name no other program can guess (Windows).
std::string PlLocalEndpointPath(const std::string& dir, const std::string& name);
// Lets a child program serve the endpoint at path: on POSIX a socket
// listening there becomes the child's standard input (*childStdIn), and
// *ours is to be closed once the child is started; on Windows the child
// makes the named pipe itself, told its name by " -b NAME" added to
// *cmdTail (as php-cgi serves FastCGI there), and *ours is PL_NO_SOCKET.
// False when the endpoint can't be made.
bool PlLocalServeByChild(const char* path, PlFile* childStdIn, std::string* cmdTail, PlSocket* ours);
// Connects to the endpoint; on Windows waits a little for a pipe whose
// server is between two clients. PL_NO_SOCKET when nobody serves it.
PlSocket PlSockLocalConnect(const char* path);
// Closes a connected socket (never a listener), skipping that check.
void PlSockCloseConnected(PlSocket s);
// Resolves a dotted address (taken by address) or a host name (looked up by
// name, IPv4 only). An all-ones "255.255.255.255" counts as a name, as with
// the classic resolver. False when nothing is found.
bool PlResolveHost(const char* host, unsigned* addr);
bool PlGetHostName(char* buf, int size);
unsigned PlHtonl(unsigned v);
unsigned PlNtohl(unsigned v);

// Text of the calling thread's last system error (errno on POSIX,
// GetLastError on Windows), at most size - 1 characters. Empty when the
// system has no text for it.
void PlLastErrorText(char* buf, int size);

#endif
