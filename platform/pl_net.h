// BSD-style TCP sockets over IPv4. Addresses are 32-bit values in network
// byte order unless a name says otherwise; ports are in host order.
#ifndef LUMETTA_PL_NET_H
#define LUMETTA_PL_NET_H

typedef unsigned long long PlSocket;
// "No socket". Not 0: on POSIX descriptor 0 is a valid socket.
const PlSocket PL_NO_SOCKET = ~0ULL;

bool PlNetStartup();  // socket layer up (WinSock 2.0 on Windows)
void PlNetCleanup();

PlSocket PlSockTcp();  // PL_NO_SOCKET on failure
bool PlSockBind(PlSocket s, unsigned addrHostOrder, unsigned short port);
bool PlSockListen(PlSocket s, int backlog);
// Blocks for the next connection; PL_NO_SOCKET once the listener is closed.
PlSocket PlSockAccept(PlSocket s, unsigned* remoteAddr, unsigned short* remotePort);
bool PlSockLocalAddr(PlSocket s, unsigned* addr, unsigned short* port);
bool PlSockConnect(PlSocket s, unsigned addr, unsigned short port);
// Waits until the socket is readable: 1 ready, 0 time-out, -1 error.
int PlSockWaitReadable(PlSocket s, int timeoutSec);
int PlSockSend(PlSocket s, const void* buf, int n);  // -1 on failure
int PlSockRecv(PlSocket s, void* buf, int n);        // -1 on failure, 0 at end
void PlSockShutdownSend(PlSocket s);
void PlSockClose(PlSocket s);
// Resolves a dotted address (looked up by address) or a host name (by name),
// in the order of the classic resolver calls. False when nothing is found.
bool PlResolveHost(const char* host, unsigned* addr);
bool PlGetHostName(char* buf, int size);
unsigned PlHtonl(unsigned v);
unsigned PlNtohl(unsigned v);

#endif
