// CLog: a daily log file shared by several threads. Lines carry a UTC time
// stamp; the file name carries the UTC date and changes at midnight.
#ifndef LUMETTA_CLOG_H
#define LUMETTA_CLOG_H

#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "cstr.h"
#include "pl_thread.h"

class CLog {
 public:
  bool AutoFlush;
  CStr FileNameExt;
  CStr FileNamePref;
  CStr Path;  // "." and the native separator; one more separator is added
  int LogLevel;  // 0 switches logging off
  bool DoFlush;
  FILE* FH;
  time_t CreationTime;
  time_t LastWriteTime;
  time_t NextLogTime;
  PlMutex* hMutex;  // recursive

  CLog();
  ~CLog();
  CLog(const CLog&) = delete;
  CLog& operator=(const CLog&) = delete;

  void New();  // throws 0 when the file can't be opened
  bool Print(const char* fmt, ...);
  // False without an open file, when the next day's file can't be opened,
  // or when a write fails; in the last case the lock stays with the calling
  // thread (given back when that thread ends).
  bool VPrint(const char* fmt, va_list ap);
  bool WinErr();  // "WINDOWS ERROR: " and the last system error's text
  static bool Flush(void* log);
  static CStr FormatIP(unsigned int ip);  // ip in network byte order
  void CheckTime();
};

#endif
