// File and memory streams sharing one vocabulary: bytes, text lines, scalars
// in a chosen byte order and length-framed records (4-byte length before and
// after each record). Failures throw CERR_GEN_* codes from cerror.h.
//
// The codes both classes throw: CERR_GEN_OPENWRITE and CERR_GEN_OPENREAD
// from Open, CERR_GEN_SEEK when the runtime refuses a seek, CERR_GEN_EOF from
// Getc at the end, CERR_GEN_FILENOTOPEN, CERR_GEN_MISSINGARGUMENT,
// CERR_GEN_ACCESS against the access flags, CERR_GEN_SHORTREAD from the
// fixed-size reads, CERR_GEN_WRITE, and CERR_GEN_MEMORY when a memory block
// can't be had.
//
// Seek takes the library's own origins, CSTREAM_SEEK_CUR, CSTREAM_SEEK_END
// and CSTREAM_SEEK_SET (not the runtime's). A memory stream counts a from-end offset
// backwards (position = Size - offset); a file stream passes it unchanged
// to fseek with SEEK_END (position = size + offset). The two differ on purpose.
#ifndef LUMETTA_CSTREAM_H
#define LUMETTA_CSTREAM_H

#include <cstdio>

#include "cerror.h"
#include "cmem.h"
#include "cstr.h"

// Access flags.
enum {
  CSTREAM_CREATE = 0x01,  // create (implies write)
  CSTREAM_BINARY = 0x02,  // "b" open mode; WriteConv copies bytes unchanged
  CSTREAM_TRUNC = 0x10,   // with read and write: "w+" instead of "r+"
  CSTREAM_READ = 0x20,
  CSTREAM_WRITE = 0x40
};

// Whence codes of Seek.
enum { CSTREAM_SEEK_CUR = 0, CSTREAM_SEEK_END = 1, CSTREAM_SEEK_SET = 2 };

// Byte orders (Endian / SysEndian).
enum { CSTREAM_BIG_ENDIAN = 0, CSTREAM_LITTLE_ENDIAN = 1 };

// Line-end styles of CMemStream::TextMode.
enum { CSTREAM_TEXT_LF = 0, CSTREAM_TEXT_CRLF = 1, CSTREAM_TEXT_CR = 2 };

class CFileStream {
 public:
  CFileStream();
  CFileStream(const char* name, int flags);  // Open
  ~CFileStream();
  CFileStream(const CFileStream&) = delete;
  CFileStream& operator=(const CFileStream&) = delete;

  // "stdout" and "stderr" bind the process's output streams (write only),
  // "stdin" its input (read only); these are never closed by Close.
  void Open(const char* name, int flags);
  void Close();
  void Set();  // closes and restores the defaults (machine byte order)

  unsigned int Read(void* p, unsigned int n);  // bytes read; 0 at the end
  void Write(const void* p, unsigned int n);

  unsigned char ReadByte();
  short ReadWord();
  int ReadLong();
  long long ReadLongLong();
  float ReadFloat();
  double ReadDouble();
  void WriteByte(unsigned char v);
  void WriteWord(short v);
  void WriteLong(int v);
  void WriteLongLong(long long v);
  void WriteFloat(float v);
  void WriteDouble(double v);

  // Runs of n items; a read that cannot fill all n items throws CERR_GEN_SHORTREAD.
  void ReadArray(short* p, unsigned int n);
  void ReadArray(int* p, unsigned int n);
  void ReadArray(long long* p, unsigned int n);
  void ReadArray(float* p, unsigned int n);
  void ReadArray(double* p, unsigned int n);
  void ReadArray4(void* p, unsigned int n);
  void ReadArray8(void* p, unsigned int n);
  void WriteArray(const short* p, unsigned int n);
  void WriteArray(const int* p, unsigned int n);
  void WriteArray(const long long* p, unsigned int n);
  void WriteArray(const float* p, unsigned int n);
  void WriteArray(const double* p, unsigned int n);
  void WriteArray4(const void* p, unsigned int n);
  void WriteArray8(const void* p, unsigned int n);

  void ReadFor(void* p, unsigned int n);
  void WriteFor(const void* p, unsigned int n);

  int Getc();  // 0..255; throws CERR_GEN_EOF at the end
  // Line reading: CR, LF and CR LF all arrive as one LF. NULL / false at the
  // end when nothing was read.
  char* Gets(char* buf, int size);
  bool Gets(CStr& line);
  int Puts(const char* s);
  int Printf(const char* fmt, ...);

  // Returns the new position; throws CERR_GEN_SEEK when the runtime refuses.
  long long Seek(int offset, int whence);
  long long Forward();  // to the end of the file
  void Rewind();
  long long GetPos();
  int GetFlags() const { return AccFlags; }
  void SetEndian(int endian) { Endian = endian; }
  int GetEndian() const { return Endian; }

  void Flush();
  // True when no further byte can be read (looks ahead one byte, so it is
  // exact at the end of a file rather than only after a failed read).
  bool GetEof();
  FILE* GetFileHandle() const { return FH; }
  const CStr& GetFileName() const { return FName; }
  bool IsOpen() const { return FH != nullptr; }

 private:
  int Endian;
  CStr FName;
  FILE* FH;
  int AccFlags;
  int SysEndian;
  bool StdStream;  // bound to stdin/stdout/stderr: not ours to close
  int LastOp;      // 0 none, 1 read, 2 write: a seek must separate the two

  bool Swap() const { return Endian != SysEndian; }
  void Need(int access);
  void Turn(int op);
};

// One fixed-size block of a memory stream.
class CMemBlock {
 public:
  char* Data = nullptr;
  CMemBlock() {}
  ~CMemBlock() { delete[] Data; }
  CMemBlock(const CMemBlock&) = delete;
  CMemBlock& operator=(const CMemBlock&) = delete;
};

// A stream over a chain of 4096-byte blocks. Written data never moves: the
// stream grows by appending blocks. Size counts every byte written, including
// bytes that overwrite earlier data; blocks start zero-filled, so positions
// below Size that were never written read as zeros.
class CMemStream {
 public:
  explicit CMemStream(int flags = CSTREAM_READ | CSTREAM_WRITE);
  ~CMemStream() {}
  CMemStream(const CMemStream&) = delete;
  CMemStream& operator=(const CMemStream&) = delete;

  // Drops the content and restores the defaults (TextMode CR LF, machine
  // byte order) with new access flags.
  void Set(int flags);

  unsigned int Read(void* p, unsigned int n);
  void Write(const void* p, unsigned int n);
  // Text write: each LF becomes the TextMode line end unless the stream is
  // binary.
  void WriteConv(const char* text, unsigned int n);

  unsigned char ReadByte();
  short ReadWord();
  int ReadLong();
  long long ReadLongLong();
  float ReadFloat();
  double ReadDouble();
  void WriteByte(unsigned char v);
  void WriteWord(short v);
  void WriteLong(int v);
  void WriteLongLong(long long v);
  void WriteFloat(float v);
  void WriteDouble(double v);

  void ReadArray(short* p, unsigned int n);
  void ReadArray(int* p, unsigned int n);
  void ReadArray(long long* p, unsigned int n);
  void ReadArray(float* p, unsigned int n);
  void ReadArray(double* p, unsigned int n);
  void ReadArray4(void* p, unsigned int n);
  void ReadArray8(void* p, unsigned int n);
  void WriteArray(const short* p, unsigned int n);
  void WriteArray(const int* p, unsigned int n);
  void WriteArray(const long long* p, unsigned int n);
  void WriteArray(const float* p, unsigned int n);
  void WriteArray(const double* p, unsigned int n);
  void WriteArray4(const void* p, unsigned int n);
  void WriteArray8(const void* p, unsigned int n);

  void ReadFor(void* p, unsigned int n);
  void WriteFor(const void* p, unsigned int n);

  int Getc();
  char* Gets(char* buf, int size);
  bool Gets(CStr& line);
  int Puts(const char* s);  // through WriteConv
  int Printf(const char* fmt, ...);

  // Never throws: targets before the start clamp to 0, targets at or past
  // the end go to the end.
  long long Seek(int offset, int whence);
  long long Forward();
  void Rewind();
  long long GetPos() const { return Pos; }
  long long GetSize() const { return Size; }
  int GetFlags() const { return AccFlags; }
  void SetEndian(int endian) { Endian = endian; }
  int GetEndian() const { return Endian; }
  void SetTextMode(int mode) { TextMode = mode; }
  int GetTextMode() const { return TextMode; }
  int GetBlockCount() const { return BlockList.Count(); }

  // The whole content, copied once. ToChar adds a terminating NUL (free with
  // delete[]); ToCMem and ToCStr give new objects (never NULL) to delete.
  char* ToChar() const;
  CMem* ToCMem() const;
  CStr* ToCStr() const;

 private:
  int Endian;
  int TextMode;
  int AccFlags;
  int SysEndian;
  CList<CMemBlock> BlockList;
  CListIterator<CMemBlock> BlockIter;
  CMemBlock* BlockCur;
  long long BlockCurPos;
  long long Pos;
  long long Size;
  long long BlockSize;

  bool Swap() const { return Endian != SysEndian; }
  bool StepBlock(bool append);
  unsigned long long CopyOut(char* out) const;
};

#endif
