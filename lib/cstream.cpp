// File and memory streams. The typed, array, record and line operations are
// written once as templates over the two classes' Read/Write/Getc; each class
// supplies only its own byte transport and positioning.
#include "cstream.h"

#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "cerror.h"
#include "cprintf.h"
#include "qsendian.h"

namespace {

[[noreturn]] void Fail(int code) { throw code; }

int MachineEndian() { return EndianCheck() ? CSTREAM_LITTLE_ENDIAN : CSTREAM_BIG_ENDIAN; }

// Byte count of n items of the given size; a count that does not fit the
// transport's unsigned int is a bad argument rather than a silent wrap.
unsigned int ByteCount(unsigned int n, unsigned int itemSize) {
  if (n > UINT_MAX / itemSize) Fail(CERR_GEN_MISSINGARGUMENT);
  return n * itemSize;
}

template <class S>
void ReadExact(S& s, void* p, unsigned int n) {
  if (s.Read(p, n) != n) Fail(CERR_GEN_SHORTREAD);
}

template <class S, class T>
T ReadScalar(S& s, bool swap) {
  T v;
  ReadExact(s, &v, sizeof v);
  if (swap) EndianSwap(v);
  return v;
}

template <class S, class T>
void WriteScalar(S& s, T v, bool swap) {
  if (swap) EndianSwap(v);
  s.Write(&v, sizeof v);
}

// Swaps exactly n items in place.
void SwapItems(short* p, unsigned int n) {
  for (unsigned int i = 0; i < n; ++i) EndianSwap(p[i]);
}
void SwapItems4(void* p, unsigned int n) { EndianSwapArray4(p, n); }
void SwapItems8(void* p, unsigned int n) { EndianSwapArray8(p, n); }

template <class S>
void ReadItems(S& s, void* p, unsigned int n, unsigned int itemSize, bool swap) {
  if (!p || n == 0) Fail(CERR_GEN_MISSINGARGUMENT);
  ReadExact(s, p, ByteCount(n, itemSize));
  if (!swap) return;
  if (itemSize == 2) SwapItems(static_cast<short*>(p), n);
  else if (itemSize == 4) SwapItems4(p, n);
  else SwapItems8(p, n);
}

// Writes n items, swapping a copy in slices so the caller's data stays as it is.
template <class S>
void WriteItems(S& s, const void* p, unsigned int n, unsigned int itemSize, bool swap) {
  if (!p || n == 0) Fail(CERR_GEN_MISSINGARGUMENT);
  unsigned int total = ByteCount(n, itemSize);
  if (!swap) {
    s.Write(p, total);
    return;
  }
  const unsigned int sliceItems = 512;
  alignas(8) char slice[sliceItems * 8];
  const char* src = static_cast<const char*>(p);
  for (unsigned int done = 0; done < n;) {
    unsigned int k = n - done < sliceItems ? n - done : sliceItems;
    memcpy(slice, src + (size_t)done * itemSize, (size_t)k * itemSize);
    if (itemSize == 2) SwapItems(reinterpret_cast<short*>(slice), k);
    else if (itemSize == 4) SwapItems4(slice, k);
    else SwapItems8(slice, k);
    s.Write(slice, k * itemSize);
    done += k;
  }
}

// Record framing: length, data, length. The markers are skipped, not checked,
// when reading.
template <class S>
void ReadRecord(S& s, void* p, unsigned int n, bool swap) {
  if (!p && n) Fail(CERR_GEN_MISSINGARGUMENT);
  ReadScalar<S, int>(s, swap);
  if (n) ReadExact(s, p, n);
  ReadScalar<S, int>(s, swap);
}

template <class S>
void WriteRecord(S& s, const void* p, unsigned int n, bool swap) {
  if (!p && n) Fail(CERR_GEN_MISSINGARGUMENT);
  WriteScalar<S, int>(s, (int)n, swap);
  if (n) s.Write(p, n);
  WriteScalar<S, int>(s, (int)n, swap);
}

// Reads one character or -1 at the end, without the throw of Getc.
template <class S>
int PeekRead(S& s) {
  unsigned char c;
  return s.Read(&c, 1) == 1 ? c : -1;
}

// One line into buf (at most size - 1 characters); CR, LF and CR LF all end
// the line as one LF. Returns the count stored, or -1 at the end with nothing
// read. A lone CR that is followed by another character gives that character
// back through unread(c).
template <class S, class Unread>
int ReadLine(S& s, char* buf, int size, Unread unread) {
  int n = 0;
  while (n < size - 1) {
    int c = PeekRead(s);
    if (c < 0) return n == 0 ? -1 : n;
    if (c == '\r') {
      int next = PeekRead(s);
      if (next >= 0 && next != '\n') unread(next);
      c = '\n';
    }
    buf[n++] = (char)c;
    if (c == '\n') break;
  }
  return n;
}

// A whole line of any length, assembled from 1023-character pieces.
template <class S, class Unread>
bool ReadLine(S& s, CStr& line, Unread unread) {
  line.Empty();
  char piece[1024];
  for (;;) {
    int n = ReadLine(s, piece, sizeof piece, unread);
    if (n < 0) return !line.IsEmpty();
    line.Cat(piece, n);
    if (n > 0 && piece[n - 1] == '\n') return true;
    if (n < (int)sizeof piece - 1) return true;  // end of data inside the line
  }
}

// Writes a heap text from the formatting engine and releases it, also when
// the write throws.
template <class S>
int PutFormatted(S& s, char* text) {
  std::unique_ptr<char, void (*)(void*)> hold(text, free);
  if (!text) Fail(CERR_GEN_MEMORY);
  return s.Puts(text);
}

}  // namespace

// ---------------------------------------------------------------- CFileStream

CFileStream::CFileStream()
    : Endian(0), FH(nullptr), AccFlags(0), SysEndian(0), StdStream(false), LastOp(0) {
  Set();
}

CFileStream::CFileStream(const char* name, int flags) : CFileStream() { Open(name, flags); }

CFileStream::~CFileStream() { Close(); }

void CFileStream::Set() {
  Close();
  SysEndian = MachineEndian();
  Endian = SysEndian;
  AccFlags = 0;
}

void CFileStream::Open(const char* name, int flags) {
  if (!name || !*name || flags == 0) Fail(CERR_GEN_MISSINGARGUMENT);
  Close();
  int binary = flags & CSTREAM_BINARY;
  if (!strcmp(name, "stdout") || !strcmp(name, "stderr") || !strcmp(name, "stdin")) {
    bool in = name[3] == 'i';
    FH = in ? stdin : (name[3] == 'o' ? stdout : stderr);
    AccFlags = (in ? CSTREAM_READ : CSTREAM_WRITE) | binary;
    StdStream = true;
  } else {
    if (flags & CSTREAM_CREATE) flags |= CSTREAM_WRITE;
    bool rd = flags & CSTREAM_READ, wr = flags & CSTREAM_WRITE;
    if (!rd && !wr) Fail(CERR_GEN_MISSINGARGUMENT);
    char mode[4] = {0};
    if (rd && wr) strcpy(mode, (flags & CSTREAM_TRUNC) ? "w+" : "r+");
    else strcpy(mode, rd ? "r" : "w");
    if (binary) strcat(mode, "b");
    FH = fopen(name, mode);
    if (!FH) Fail(rd ? CERR_GEN_OPENREAD : CERR_GEN_OPENWRITE);
    AccFlags = flags;
    StdStream = false;
  }
  FName = name;
  LastOp = 0;
}

void CFileStream::Close() {
  if (FH && !StdStream) fclose(FH);
  else if (FH) fflush(FH);
  FH = nullptr;
  StdStream = false;
  FName.Empty();
  LastOp = 0;
}

// Throws 7 when closed and 14 when the access flags do not allow the operation.
void CFileStream::Need(int access) {
  if (!FH) Fail(CERR_GEN_FILENOTOPEN);
  if (!(AccFlags & access)) Fail(CERR_GEN_ACCESS);
}

// The runtime requires a positioning call between reading and writing on an
// update stream; doing it here lets callers mix the two freely.
void CFileStream::Turn(int op) {
  if (LastOp && LastOp != op && !StdStream) fseek(FH, 0, SEEK_CUR);
  LastOp = op;
}

unsigned int CFileStream::Read(void* p, unsigned int n) {
  if (!p || n == 0) Fail(CERR_GEN_MISSINGARGUMENT);
  Need(CSTREAM_READ);
  Turn(1);
  return (unsigned int)fread(p, 1, n, FH);
}

void CFileStream::Write(const void* p, unsigned int n) {
  if (!p || n == 0) Fail(CERR_GEN_MISSINGARGUMENT);
  Need(CSTREAM_WRITE);
  Turn(2);
  if (fwrite(p, 1, n, FH) != n) Fail(CERR_GEN_WRITE);
}

unsigned char CFileStream::ReadByte() {
  unsigned char v;
  ReadExact(*this, &v, 1);
  return v;
}
short CFileStream::ReadWord() { return ReadScalar<CFileStream, short>(*this, Swap()); }
int CFileStream::ReadLong() { return ReadScalar<CFileStream, int>(*this, Swap()); }
long long CFileStream::ReadLongLong() { return ReadScalar<CFileStream, long long>(*this, Swap()); }
float CFileStream::ReadFloat() { return ReadScalar<CFileStream, float>(*this, Swap()); }
double CFileStream::ReadDouble() { return ReadScalar<CFileStream, double>(*this, Swap()); }
void CFileStream::WriteByte(unsigned char v) { Write(&v, 1); }
void CFileStream::WriteWord(short v) { WriteScalar(*this, v, Swap()); }
void CFileStream::WriteLong(int v) { WriteScalar(*this, v, Swap()); }
void CFileStream::WriteLongLong(long long v) { WriteScalar(*this, v, Swap()); }
void CFileStream::WriteFloat(float v) { WriteScalar(*this, v, Swap()); }
void CFileStream::WriteDouble(double v) { WriteScalar(*this, v, Swap()); }

void CFileStream::ReadArray(short* p, unsigned int n) { ReadItems(*this, p, n, 2, Swap()); }
void CFileStream::ReadArray(int* p, unsigned int n) { ReadItems(*this, p, n, 4, Swap()); }
void CFileStream::ReadArray(long long* p, unsigned int n) { ReadItems(*this, p, n, 8, Swap()); }
void CFileStream::ReadArray(float* p, unsigned int n) { ReadItems(*this, p, n, 4, Swap()); }
void CFileStream::ReadArray(double* p, unsigned int n) { ReadItems(*this, p, n, 8, Swap()); }
void CFileStream::ReadArray4(void* p, unsigned int n) { ReadItems(*this, p, n, 4, Swap()); }
void CFileStream::ReadArray8(void* p, unsigned int n) { ReadItems(*this, p, n, 8, Swap()); }
void CFileStream::WriteArray(const short* p, unsigned int n) { WriteItems(*this, p, n, 2, Swap()); }
void CFileStream::WriteArray(const int* p, unsigned int n) { WriteItems(*this, p, n, 4, Swap()); }
void CFileStream::WriteArray(const long long* p, unsigned int n) { WriteItems(*this, p, n, 8, Swap()); }
void CFileStream::WriteArray(const float* p, unsigned int n) { WriteItems(*this, p, n, 4, Swap()); }
void CFileStream::WriteArray(const double* p, unsigned int n) { WriteItems(*this, p, n, 8, Swap()); }
void CFileStream::WriteArray4(const void* p, unsigned int n) { WriteItems(*this, p, n, 4, Swap()); }
void CFileStream::WriteArray8(const void* p, unsigned int n) { WriteItems(*this, p, n, 8, Swap()); }

void CFileStream::ReadFor(void* p, unsigned int n) { ReadRecord(*this, p, n, Swap()); }
void CFileStream::WriteFor(const void* p, unsigned int n) { WriteRecord(*this, p, n, Swap()); }

int CFileStream::Getc() {
  Need(CSTREAM_READ);
  Turn(1);
  int c = fgetc(FH);
  if (c == EOF) Fail(CERR_GEN_EOF);
  return c;
}

char* CFileStream::Gets(char* buf, int size) {
  if (!buf || size < 1) Fail(CERR_GEN_MISSINGARGUMENT);
  Need(CSTREAM_READ);
  int n = ReadLine(*this, buf, size, [this](int c) { ungetc(c, FH); });
  if (n < 0) return nullptr;
  buf[n] = 0;
  return buf;
}

bool CFileStream::Gets(CStr& line) {
  Need(CSTREAM_READ);
  return ReadLine(*this, line, [this](int c) { ungetc(c, FH); });
}

int CFileStream::Puts(const char* s) {
  if (!s) Fail(CERR_GEN_MISSINGARGUMENT);
  unsigned int n = (unsigned int)strlen(s);
  if (n) Write(s, n);
  return (int)n;
}

int CFileStream::Printf(const char* fmt, ...) {
  if (!fmt) Fail(CERR_GEN_MISSINGARGUMENT);
  va_list ap;
  va_start(ap, fmt);
  char* text = QsVmPrintf(fmt, ap);
  va_end(ap);
  return PutFormatted(*this, text);
}

long long CFileStream::Seek(int offset, int whence) {
  if (!FH) Fail(CERR_GEN_FILENOTOPEN);
  static const int runtimeWhence[3] = {SEEK_CUR, SEEK_END, SEEK_SET};
  if (whence < 0 || whence > 2) Fail(CERR_GEN_MISSINGARGUMENT);
  if (fseek(FH, offset, runtimeWhence[whence]) != 0) Fail(CERR_GEN_SEEK);
  LastOp = 0;
  return GetPos();
}

long long CFileStream::Forward() { return Seek(0, CSTREAM_SEEK_END); }

void CFileStream::Rewind() { Seek(0, CSTREAM_SEEK_SET); }

long long CFileStream::GetPos() {
  if (!FH) Fail(CERR_GEN_FILENOTOPEN);
  long pos = ftell(FH);
  if (pos < 0) Fail(CERR_GEN_SEEK);
  return pos;
}

void CFileStream::Flush() {
  if (!FH) Fail(CERR_GEN_FILENOTOPEN);
  if (fflush(FH) != 0) Fail(CERR_GEN_WRITE);
}

bool CFileStream::GetEof() {
  if (!FH) return true;
  if (!(AccFlags & CSTREAM_READ)) return feof(FH) != 0;
  Turn(1);
  int c = fgetc(FH);
  if (c == EOF) return true;
  ungetc(c, FH);
  return false;
}

// ----------------------------------------------------------------- CMemStream

CMemStream::CMemStream(int flags)
    : Endian(0), TextMode(CSTREAM_TEXT_CRLF), AccFlags(0), SysEndian(0), BlockCur(nullptr),
      BlockCurPos(0), Pos(0), Size(0), BlockSize(4096) {
  Set(flags);
}

void CMemStream::Set(int flags) {
  BlockList.Clear();
  AccFlags = flags;
  BlockCur = nullptr;
  BlockSize = 4096;
  BlockCurPos = BlockSize;  // "current block full": the first write appends one
  Pos = Size = 0;
  SysEndian = MachineEndian();
  Endian = SysEndian;
  TextMode = CSTREAM_TEXT_CRLF;
  BlockIter.Set(&BlockList);
}

// Moves to the block after the current one (the first block when there is no
// current one). With append, a missing block is created (zero-filled);
// without it the result is false at the last block.
bool CMemStream::StepBlock(bool append) {
  bool atLast = BlockCur ? BlockCur == &BlockList.LastItem->Value : BlockList.Count() == 0;
  if (atLast) {
    if (!append) return false;
    CMemBlock* block = BlockList.Add();
    block->Data = new char[(size_t)BlockSize]();
  }
  if (!BlockCur) BlockIter.Reset();
  BlockCur = BlockIter.Next();
  BlockCurPos = 0;
  return true;
}

void CMemStream::Write(const void* p, unsigned int n) {
  if (!p || n == 0) Fail(CERR_GEN_MISSINGARGUMENT);
  if (!(AccFlags & CSTREAM_WRITE)) Fail(CERR_GEN_ACCESS);
  const char* src = static_cast<const char*>(p);
  while (n) {
    if (BlockCurPos >= BlockSize) StepBlock(true);
    long long room = BlockSize - BlockCurPos;
    unsigned int k = room < (long long)n ? (unsigned int)room : n;
    memcpy(BlockCur->Data + BlockCurPos, src, k);
    src += k;
    n -= k;
    BlockCurPos += k;
    Pos += k;
    Size += k;  // overwriting counts too; callers rely on it
  }
}

unsigned int CMemStream::Read(void* p, unsigned int n) {
  if (!p || n == 0) Fail(CERR_GEN_MISSINGARGUMENT);
  if (!(AccFlags & CSTREAM_READ)) Fail(CERR_GEN_ACCESS);
  long long left = Size - Pos;
  if ((long long)n > left) n = (unsigned int)left;
  char* dst = static_cast<char*>(p);
  unsigned int got = 0;
  while (got < n) {
    if (BlockCurPos >= BlockSize && !StepBlock(false)) break;
    long long room = BlockSize - BlockCurPos;
    unsigned int k = room < (long long)(n - got) ? (unsigned int)room : n - got;
    memcpy(dst + got, BlockCur->Data + BlockCurPos, k);
    got += k;
    BlockCurPos += k;
    Pos += k;
  }
  return got;
}

void CMemStream::WriteConv(const char* text, unsigned int n) {
  if (AccFlags & CSTREAM_BINARY) {
    Write(text, n);
    return;
  }
  // Text goes byte by byte in principle, so no bytes means nothing to do.
  if (n == 0) return;
  if (!text) Fail(CERR_GEN_MISSINGARGUMENT);
  // Converted in slices so a long text costs a few writes, not one per byte.
  char out[1024];
  unsigned int k = 0;
  for (unsigned int i = 0; i < n; ++i) {
    if (k + 2 > sizeof out) {
      Write(out, k);
      k = 0;
    }
    char c = text[i];
    if (c != '\n') out[k++] = c;
    else if (TextMode == CSTREAM_TEXT_CRLF) out[k++] = '\r', out[k++] = '\n';
    else out[k++] = TextMode == CSTREAM_TEXT_CR ? '\r' : '\n';
  }
  if (k) Write(out, k);
}

unsigned char CMemStream::ReadByte() {
  unsigned char v;
  ReadExact(*this, &v, 1);
  return v;
}
short CMemStream::ReadWord() { return ReadScalar<CMemStream, short>(*this, Swap()); }
int CMemStream::ReadLong() { return ReadScalar<CMemStream, int>(*this, Swap()); }
long long CMemStream::ReadLongLong() { return ReadScalar<CMemStream, long long>(*this, Swap()); }
float CMemStream::ReadFloat() { return ReadScalar<CMemStream, float>(*this, Swap()); }
double CMemStream::ReadDouble() { return ReadScalar<CMemStream, double>(*this, Swap()); }
void CMemStream::WriteByte(unsigned char v) { Write(&v, 1); }
void CMemStream::WriteWord(short v) { WriteScalar(*this, v, Swap()); }
void CMemStream::WriteLong(int v) { WriteScalar(*this, v, Swap()); }
void CMemStream::WriteLongLong(long long v) { WriteScalar(*this, v, Swap()); }
void CMemStream::WriteFloat(float v) { WriteScalar(*this, v, Swap()); }
void CMemStream::WriteDouble(double v) { WriteScalar(*this, v, Swap()); }

void CMemStream::ReadArray(short* p, unsigned int n) { ReadItems(*this, p, n, 2, Swap()); }
void CMemStream::ReadArray(int* p, unsigned int n) { ReadItems(*this, p, n, 4, Swap()); }
void CMemStream::ReadArray(long long* p, unsigned int n) { ReadItems(*this, p, n, 8, Swap()); }
void CMemStream::ReadArray(float* p, unsigned int n) { ReadItems(*this, p, n, 4, Swap()); }
void CMemStream::ReadArray(double* p, unsigned int n) { ReadItems(*this, p, n, 8, Swap()); }
void CMemStream::ReadArray4(void* p, unsigned int n) { ReadItems(*this, p, n, 4, Swap()); }
void CMemStream::ReadArray8(void* p, unsigned int n) { ReadItems(*this, p, n, 8, Swap()); }
void CMemStream::WriteArray(const short* p, unsigned int n) { WriteItems(*this, p, n, 2, Swap()); }
void CMemStream::WriteArray(const int* p, unsigned int n) { WriteItems(*this, p, n, 4, Swap()); }
void CMemStream::WriteArray(const long long* p, unsigned int n) { WriteItems(*this, p, n, 8, Swap()); }
void CMemStream::WriteArray(const float* p, unsigned int n) { WriteItems(*this, p, n, 4, Swap()); }
void CMemStream::WriteArray(const double* p, unsigned int n) { WriteItems(*this, p, n, 8, Swap()); }
void CMemStream::WriteArray4(const void* p, unsigned int n) { WriteItems(*this, p, n, 4, Swap()); }
void CMemStream::WriteArray8(const void* p, unsigned int n) { WriteItems(*this, p, n, 8, Swap()); }

void CMemStream::ReadFor(void* p, unsigned int n) { ReadRecord(*this, p, n, Swap()); }
void CMemStream::WriteFor(const void* p, unsigned int n) { WriteRecord(*this, p, n, Swap()); }

int CMemStream::Getc() {
  int c = PeekRead(*this);
  if (c < 0) Fail(CERR_GEN_EOF);
  return c;
}

char* CMemStream::Gets(char* buf, int size) {
  if (!buf || size < 1) Fail(CERR_GEN_MISSINGARGUMENT);
  int n = ReadLine(*this, buf, size, [this](int) { Seek(-1, CSTREAM_SEEK_CUR); });
  if (n < 0) return nullptr;
  buf[n] = 0;
  return buf;
}

bool CMemStream::Gets(CStr& line) {
  return ReadLine(*this, line, [this](int) { Seek(-1, CSTREAM_SEEK_CUR); });
}

int CMemStream::Puts(const char* s) {
  if (!s) Fail(CERR_GEN_MISSINGARGUMENT);
  unsigned int n = (unsigned int)strlen(s);
  if (n) WriteConv(s, n);
  return (int)n;
}

int CMemStream::Printf(const char* fmt, ...) {
  if (!fmt) Fail(CERR_GEN_MISSINGARGUMENT);
  va_list ap;
  va_start(ap, fmt);
  char* text = QsVmPrintf(fmt, ap);
  va_end(ap);
  return PutFormatted(*this, text);
}

long long CMemStream::Seek(int offset, int whence) {
  long long target;
  if (whence == CSTREAM_SEEK_END) target = Size - offset;
  else if (whence == CSTREAM_SEEK_SET) target = offset;
  else if (whence == CSTREAM_SEEK_CUR) target = Pos + offset;
  else Fail(CERR_GEN_MISSINGARGUMENT);
  // Overwrites grow Size past the blocks actually held; never point beyond them.
  long long held = (long long)BlockList.Count() * BlockSize;
  if (target > Size) target = Size;
  if (target > held) target = held;
  if (target < 0) target = 0;
  Pos = target;
  if (BlockList.Count() == 0) {
    BlockCur = nullptr;
    BlockCurPos = BlockSize;
  } else if (target == 0) {
    BlockCur = BlockIter.Seek(0);
    BlockCurPos = 0;
  } else {
    // A position on a block boundary stays at the end of the earlier block;
    // the next read or write steps on.
    BlockCur = BlockIter.Seek((int)((target - 1) / BlockSize));
    BlockCurPos = (target - 1) % BlockSize + 1;
  }
  return Pos;
}

long long CMemStream::Forward() { return Seek(0, CSTREAM_SEEK_END); }

void CMemStream::Rewind() { Seek(0, CSTREAM_SEEK_SET); }

// Copies Size bytes into out; bytes beyond the held blocks come out as zeros.
unsigned long long CMemStream::CopyOut(char* out) const {
  unsigned long long left = (unsigned long long)Size, done = 0;
  for (CListItem<CMemBlock>* item = BlockList.First; item && left; item = item->Next) {
    unsigned long long k = left < (unsigned long long)BlockSize ? left : (unsigned long long)BlockSize;
    memcpy(out + done, item->Value.Data, (size_t)k);
    done += k;
    left -= k;
  }
  if (left) memset(out + done, 0, (size_t)left);
  return (unsigned long long)Size;
}

char* CMemStream::ToChar() const {
  char* out = new char[(size_t)Size + 1];
  out[CopyOut(out)] = 0;
  return out;
}

CMem* CMemStream::ToCMem() const {
  CMem* mem = new CMem();
  if (Size) {
    char* block = new char[(size_t)Size];
    CopyOut(block);
    mem->Set(block, (unsigned long long)Size);
  }
  return mem;
}

CStr* CMemStream::ToCStr() const {
  char* text = ToChar();
  CStr* s = new CStr(text, (int)Size);
  delete[] text;
  return s;
}
