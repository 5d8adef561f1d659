// Error numbering of the whole library. Operations that cannot go on throw one
// of these codes as a plain int; the connection thread and the program entry
// are the catch points.
#ifndef LUMETTA_CERROR_H
#define LUMETTA_CERROR_H

enum CERR_CODES {
  // Streams and pipes (1-23).
  CERR_GEN_MEMORY = 1,          // allocation failed
  CERR_GEN_OPENWRITE = 2,       // file can't be opened for writing
  CERR_GEN_SEEK = 3,            // positioning failed
  CERR_GEN_EOF = 4,             // end of file in Getc
  CERR_GEN_READ = 5,            // read failed
  CERR_GEN_OPENREAD = 6,        // file can't be opened for reading
  CERR_GEN_FILENOTOPEN = 7,     // stream not open / child not running
  CERR_GEN_FILEEXIST = 8,       // file already exists
  CERR_GEN_FORMAT = 9,          // malformed data
  CERR_GEN_MISSINGARGUMENT = 10, // NULL pointer, zero size, empty name, zero flags
  CERR_GEN_RANGE = 11,          // value out of range
  CERR_GEN_TIMEOUT = 12,        // operation timed out
  CERR_GEN_ABORTED = 13,        // transfer stopped (HTTP client body reader)
  CERR_GEN_ACCESS = 14,         // not permitted by the access flags
  CERR_GEN_PIPE = 15,           // pipe creation failed
  CERR_GEN_PRIORITY = 16,       // priority index outside 0..3
  CERR_GEN_SHORTREAD = 17,      // fewer bytes than a fixed-size read asked for
  CERR_GEN_READONLY = 18,       // write on a stream without the write bit
  CERR_GEN_RUN = 19,            // child process could not be started
  CERR_GEN_THREAD = 20,         // thread could not be started
  CERR_GEN_WRITE = 21,          // write failed or was short
  CERR_GEN_WRITEONLY = 22,      // read on a stream without the read bit
  CERR_GEN_LIBRARY = 23,        // run-time library could not be bound

  // HTTP server (301-307).
  CERR_HTTPSRV_GENERIC = 301,
  CERR_HTTPSRV_THREAD = 302,    // accepting thread not started
  CERR_HTTPSRV_LISTEN = 303,    // listening failed
  CERR_HTTPSRV_SSL_CERT = 304,  // certificate file rejected
  CERR_HTTPSRV_SSL_INIT = 305,  // TLS library or context could not start
  CERR_HTTPSRV_SSL_KEY = 306,   // private key rejected or not matching
  CERR_HTTPSRV_SSL_ACCEPT = 307,

  // HTTP client (2xx).
  CERR_HTTPCLI_NOTHTTP = 208,   // status line does not begin with HTTP
  CERR_HTTPCLI_STATUS = 209,    // status not supported
  CERR_HTTPCLI_NOHOST = 212,
  CERR_HTTPCLI_NOPATH = 213,
  CERR_HTTPCLI_RECV = 219,
  CERR_HTTPCLI_SEND = 224,

  // Sockets.
  CERR_SOCK_CONNECT = 702,      // connect failed
  CERR_SOCK_HOST = 703,         // host not resolved
  CERR_SOCK_CREATE = 708,       // socket() failed
  CERR_SOCK_SSL = 1102          // TLS session not created, bound or accepted
};

#endif
