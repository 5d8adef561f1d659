#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "cerror.h"
#include "cstream.h"
#include "extras_tmpdir.h"

namespace {

const int RW = CSTREAM_READ | CSTREAM_WRITE;

std::string Content(const CMemStream& s) {
  CStr* all = s.ToCStr();
  std::string out(all->Data() ? all->Data() : "", (size_t)all->Length());
  delete all;
  return out;
}

template <class F>
int ThrownCode(F f) {
  try {
    f();
  } catch (int code) {
    return code;
  }
  return 0;
}

CMemStream* Filled(int n) {
  CMemStream* s = new CMemStream(RW);
  for (int i = 0; i < n; ++i) s->WriteByte((unsigned char)i);
  return s;
}

}  // namespace

TEST(CMemStream, GrowsByWholeBlocksAndCopiesOut) {
  CMemStream s(RW);
  EXPECT_EQ(s.GetSize(), 0);
  EXPECT_EQ(s.GetBlockCount(), 0);
  std::string data(4097, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = (char)(i * 7);
  s.Write(data.data(), (unsigned)data.size());
  EXPECT_EQ(s.GetSize(), 4097);
  EXPECT_EQ(s.GetBlockCount(), 2);
  EXPECT_EQ(Content(s), data);

  CMem* mem = s.ToCMem();
  ASSERT_EQ(mem->Length(), 4097u);
  EXPECT_EQ(memcmp(mem->Data(), data.data(), 4097), 0);
  delete mem;
  char* text = s.ToChar();
  EXPECT_EQ(text[4097], 0);
  delete[] text;

  // Reading back across the block boundary.
  s.Rewind();
  std::string back(4097, '\0');
  EXPECT_EQ(s.Read(&back[0], 5000), 4097u);
  EXPECT_EQ(back, data);
}

TEST(CMemStream, SeekWhenceCodesAndClamping) {
  CMemStream* s = Filled(100);
  EXPECT_EQ(s->Seek(10, CSTREAM_SEEK_END), 90);  // counts back from the end
  EXPECT_EQ(s->ReadByte(), 90);
  EXPECT_EQ(s->Seek(10, CSTREAM_SEEK_SET), 10);
  EXPECT_EQ(s->Seek(5, CSTREAM_SEEK_CUR), 15);
  EXPECT_EQ(s->ReadByte(), 15);
  EXPECT_EQ(s->Seek(-50, CSTREAM_SEEK_CUR), 0);
  EXPECT_EQ(s->Seek(1000, CSTREAM_SEEK_SET), 100);
  EXPECT_EQ(ThrownCode([&] { s->Getc(); }), CERR_GEN_EOF);
  EXPECT_EQ(s->Forward(), 100);
  delete s;

  // Positions on and around block boundaries land on the right byte.
  CMemStream* big = Filled(8192 + 10);
  for (int target : {4095, 4096, 4097, 8191, 8192}) {
    big->Seek(target, CSTREAM_SEEK_SET);
    EXPECT_EQ(big->ReadByte(), target & 0xff) << target;
  }
  big->Seek(4096, CSTREAM_SEEK_SET);  // overwrite at a boundary, then read on
  big->WriteByte(0xAA);
  big->Seek(-2, CSTREAM_SEEK_CUR);
  EXPECT_EQ(big->ReadByte(), 0xFF);
  EXPECT_EQ(big->ReadByte(), 0xAA);
  EXPECT_EQ(big->GetBlockCount(), 3);
  delete big;
}

TEST(CMemStream, OverwriteCountsTowardsSize) {
  CMemStream* s = Filled(10);
  s->Rewind();
  s->Write("abc", 3);
  EXPECT_EQ(s->GetSize(), 13);
  EXPECT_EQ(Content(*s).substr(0, 4), std::string("abc\x03", 4));
  delete s;
}

TEST(CMemStream, ScalarsInBothByteOrders) {
  for (int order : {CSTREAM_BIG_ENDIAN, CSTREAM_LITTLE_ENDIAN}) {
    CMemStream s(RW);
    s.SetEndian(order);
    s.WriteWord(0x0102);
    s.WriteLong(0x03040506);
    s.WriteLongLong(0x0708090A0B0C0D0ELL);
    s.WriteFloat(1.5f);
    s.WriteDouble(-2.25);
    std::string bytes = Content(s);
    ASSERT_EQ(bytes.size(), 2u + 4 + 8 + 4 + 8);
    const char* big = "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E";
    const char* little = "\x02\x01\x06\x05\x04\x03\x0E\x0D\x0C\x0B\x0A\x09\x08\x07";
    EXPECT_EQ(bytes.substr(0, 14), std::string(order == CSTREAM_BIG_ENDIAN ? big : little, 14));
    // IEEE 1.5f is 3F C0 00 00.
    EXPECT_EQ((unsigned char)bytes[order == CSTREAM_BIG_ENDIAN ? 14 : 17], 0x3F);

    s.Rewind();
    EXPECT_EQ(s.ReadWord(), 0x0102);
    EXPECT_EQ(s.ReadLong(), 0x03040506);
    EXPECT_EQ(s.ReadLongLong(), 0x0708090A0B0C0D0ELL);
    EXPECT_EQ(s.ReadFloat(), 1.5f);
    EXPECT_EQ(s.ReadDouble(), -2.25);
    EXPECT_EQ(ThrownCode([&] { s.ReadLong(); }), CERR_GEN_SHORTREAD);
  }
}

TEST(CMemStream, ArraysSwapExactlyTheirItems) {
  CMemStream s(RW);
  s.SetEndian(CSTREAM_BIG_ENDIAN);
  const int ints[3] = {1, 2, 0x01020304};
  const short shorts[2] = {0x0102, 0x0304};
  const double doubles[2] = {1.0, -1.0};
  s.WriteArray(ints, 3);
  s.WriteArray(shorts, 2);
  s.WriteArray(doubles, 2);
  EXPECT_EQ(ints[2], 0x01020304);  // the caller's data is left alone
  std::string bytes = Content(s);
  ASSERT_EQ(bytes.size(), 12u + 4 + 16);
  EXPECT_EQ(bytes.substr(8, 8), std::string("\x01\x02\x03\x04\x01\x02\x03\x04", 8));
  EXPECT_EQ((unsigned char)bytes[16], 0x3F);  // 1.0 is 3F F0 ...

  // Read into the front of a larger buffer: items past n must stay untouched.
  s.Rewind();
  int back[5] = {0, 0, 0, 0x11223344, 0x55667788};
  s.ReadArray(back, 3);
  EXPECT_EQ(back[0], 1);
  EXPECT_EQ(back[2], 0x01020304);
  EXPECT_EQ(back[3], 0x11223344);
  EXPECT_EQ(back[4], 0x55667788);
  short sback[3] = {0, 0, 0x7777};
  s.ReadArray(sback, 2);
  EXPECT_EQ(sback[1], 0x0304);
  EXPECT_EQ(sback[2], 0x7777);
  double dback[3] = {0, 0, 9.0};
  s.ReadArray(dback, 2);
  EXPECT_EQ(dback[1], -1.0);
  EXPECT_EQ(dback[2], 9.0);

  // A long run goes through the slicing path intact.
  CMemStream big(RW);
  big.SetEndian(CSTREAM_BIG_ENDIAN);
  static long long many[2000], again[2000];
  for (int i = 0; i < 2000; ++i) many[i] = (long long)i * 0x0101010101LL;
  big.WriteArray(many, 2000);
  big.Rewind();
  big.ReadArray(again, 2000);
  EXPECT_EQ(memcmp(many, again, sizeof many), 0);
}

TEST(CMemStream, RecordFraming) {
  CMemStream s(RW);
  s.SetEndian(CSTREAM_BIG_ENDIAN);
  s.WriteFor("12345678", 8);
  EXPECT_EQ(s.GetSize(), 16);
  EXPECT_EQ(Content(s), std::string("\0\0\0\x08" "12345678" "\0\0\0\x08", 16));
  s.Rewind();
  char data[9] = {0};
  s.ReadFor(data, 8);
  EXPECT_STREQ(data, "12345678");
  s.Rewind();
  char tooMuch[20];
  EXPECT_EQ(ThrownCode([&] { s.ReadFor(tooMuch, 20); }), CERR_GEN_SHORTREAD);
}

TEST(CMemStream, TextModesAndBinaryWrites) {
  struct {
    int flags, mode;
    const char* expect;
  } cases[] = {{RW, CSTREAM_TEXT_CRLF, "a\r\nb\r\n"},
               {RW, CSTREAM_TEXT_LF, "a\nb\n"},
               {RW, CSTREAM_TEXT_CR, "a\rb\r"},
               {RW | CSTREAM_BINARY, CSTREAM_TEXT_CRLF, "a\nb\n"}};
  for (auto& c : cases) {
    CMemStream s(c.flags);
    s.SetTextMode(c.mode);
    s.WriteConv("a\n", 2);
    s.Puts("b\n");
    EXPECT_EQ(Content(s), c.expect) << c.flags << "/" << c.mode;
  }
  CMemStream s(RW);
  EXPECT_EQ(s.GetTextMode(), CSTREAM_TEXT_CRLF);
  s.WriteConv("\n", 1);
  EXPECT_EQ(s.GetSize(), 2);
  s.Printf("%d-%s\n", 42, "x");
  EXPECT_EQ(Content(s), "\r\n42-x\r\n");
}

TEST(CMemStream, GetsFoldsEveryLineEndIntoOneLf) {
  CMemStream s(RW | CSTREAM_BINARY);
  const char text[] = "a\rb\nc\r\nd\r\re";
  s.Write(text, sizeof text - 1);
  s.Rewind();
  CStr line;
  const char* expect[] = {"a\n", "b\n", "c\n", "d\n", "\n", "e"};
  for (const char* e : expect) {
    ASSERT_TRUE(s.Gets(line));
    EXPECT_EQ(std::string(line.c_str()), e);
  }
  EXPECT_FALSE(s.Gets(line));
  EXPECT_TRUE(line.IsEmpty());

  // A line longer than the work buffer comes back whole; a short buffer cuts.
  CMemStream l(RW | CSTREAM_BINARY);
  std::string longLine(3000, 'x');
  l.Write(longLine.data(), 3000);
  l.Write("\r\nz\r", 4);
  l.Rewind();
  ASSERT_TRUE(l.Gets(line));
  EXPECT_EQ(line.Length(), 3001);
  char buf[4];
  EXPECT_STREQ(l.Gets(buf, sizeof buf), "z\n");
  EXPECT_EQ(l.Gets(buf, sizeof buf), nullptr);
}

TEST(CMemStream, ArgumentAndAccessErrors) {
  CMemStream readOnly(CSTREAM_READ);
  EXPECT_EQ(ThrownCode([&] { readOnly.Write("x", 1); }), CERR_GEN_ACCESS);
  CMemStream writeOnly(CSTREAM_WRITE);
  char c;
  writeOnly.Write("x", 1);
  EXPECT_EQ(ThrownCode([&] { writeOnly.Read(&c, 1); }), CERR_GEN_ACCESS);
  EXPECT_EQ(ThrownCode([&] { writeOnly.Write(nullptr, 1); }), CERR_GEN_MISSINGARGUMENT);
  EXPECT_EQ(ThrownCode([&] { writeOnly.Write("x", 0); }), CERR_GEN_MISSINGARGUMENT);
  writeOnly.Set(RW);  // a reset drops the content
  EXPECT_EQ(writeOnly.GetSize(), 0);
  EXPECT_EQ(writeOnly.GetBlockCount(), 0);
}

TEST(CFileStream, OpenFailuresAndClosedStream) {
  ExtrasTempDir dir;
  CFileStream f;
  EXPECT_EQ(ThrownCode([&] { f.Open("", CSTREAM_READ); }), CERR_GEN_MISSINGARGUMENT);
  EXPECT_EQ(ThrownCode([&] { f.Open("x", 0); }), CERR_GEN_MISSINGARGUMENT);
  EXPECT_EQ(ThrownCode([&] { f.Open(dir.File("none").c_str(), CSTREAM_READ); }), CERR_GEN_OPENREAD);
  EXPECT_EQ(ThrownCode([&] { f.Open(dir.File("no/dir").c_str(), CSTREAM_CREATE); }),
            CERR_GEN_OPENWRITE);
  char c;
  EXPECT_EQ(ThrownCode([&] { f.Read(&c, 1); }), CERR_GEN_FILENOTOPEN);
  EXPECT_EQ(ThrownCode([&] { f.Seek(0, CSTREAM_SEEK_SET); }), CERR_GEN_FILENOTOPEN);
  EXPECT_TRUE(f.GetEof());

  f.Open(dir.File("w").c_str(), CSTREAM_CREATE);  // create implies write, no read
  EXPECT_EQ(f.GetFlags() & CSTREAM_WRITE, CSTREAM_WRITE);
  EXPECT_EQ(ThrownCode([&] { f.Read(&c, 1); }), CERR_GEN_ACCESS);
  f.Open("stdout", CSTREAM_WRITE);
  EXPECT_EQ(f.GetFileHandle(), stdout);
  f.Close();  // must not close the process's stdout
  EXPECT_NE(fflush(stdout), EOF);
}

TEST(CFileStream, ScalarsRecordsAndSeeksOnDisk) {
  ExtrasTempDir dir;
  std::string path = dir.File("data.bin");
  {
    CFileStream f(path.c_str(), CSTREAM_CREATE | CSTREAM_BINARY);
    f.SetEndian(CSTREAM_BIG_ENDIAN);
    f.WriteLong(0x01020304);
    f.SetEndian(CSTREAM_LITTLE_ENDIAN);
    f.WriteLong(0x01020304);
    f.WriteFor("abcdefgh", 8);
    const int ints[2] = {7, 8};
    f.WriteArray(ints, 2);
  }
  std::string bytes = dir.Read("data.bin");
  ASSERT_EQ(bytes.size(), 8u + 16 + 8);
  EXPECT_EQ(bytes.substr(0, 8), std::string("\x01\x02\x03\x04\x04\x03\x02\x01", 8));

  CFileStream f(path.c_str(), CSTREAM_READ | CSTREAM_BINARY);
  f.SetEndian(CSTREAM_BIG_ENDIAN);
  EXPECT_EQ(f.ReadLong(), 0x01020304);
  f.SetEndian(CSTREAM_LITTLE_ENDIAN);
  EXPECT_EQ(f.ReadLong(), 0x01020304);
  char rec[9] = {0};
  f.ReadFor(rec, 8);
  EXPECT_STREQ(rec, "abcdefgh");
  int ints[2];
  f.ReadArray(ints, 2);
  EXPECT_EQ(ints[1], 8);
  EXPECT_TRUE(f.GetEof());
  EXPECT_EQ(ThrownCode([&] { f.Getc(); }), CERR_GEN_EOF);

  // From-end offsets are added, unlike the memory stream.
  EXPECT_EQ(f.Seek(-4, CSTREAM_SEEK_END), 28);
  EXPECT_EQ(f.ReadLong(), 8);
  EXPECT_EQ(f.Seek(4, CSTREAM_SEEK_SET), 4);
  EXPECT_EQ(f.Seek(-2, CSTREAM_SEEK_CUR), 2);
  EXPECT_EQ(ThrownCode([&] { f.Seek(-100, CSTREAM_SEEK_SET); }), CERR_GEN_SEEK);
  EXPECT_EQ(f.Forward(), 32);
  EXPECT_FALSE(f.GetFileName().IsEmpty());
}

TEST(CFileStream, UpdateModeMixesReadsAndWrites) {
  ExtrasTempDir dir;
  std::string path = dir.Write("u.txt", "0123456789");
  CFileStream f(path.c_str(), CSTREAM_READ | CSTREAM_WRITE | CSTREAM_BINARY);
  EXPECT_EQ(f.Getc(), '0');
  f.Write("AB", 2);  // straight after a read, no explicit seek
  EXPECT_EQ(f.Getc(), '3');
  f.Close();
  EXPECT_EQ(dir.Read("u.txt"), "0AB3456789");

  // "w+" truncates.
  f.Open(path.c_str(), CSTREAM_READ | CSTREAM_WRITE | CSTREAM_TRUNC);
  f.Printf("n=%d\n", 5);
  f.Rewind();
  CStr line;
  EXPECT_TRUE(f.Gets(line));
  EXPECT_EQ(std::string(line.c_str()), "n=5\n");
}

TEST(CFileStream, GetsAcrossLineEndStyles) {
  ExtrasTempDir dir;
  std::string path = dir.Write("lines.txt", "one\rtwo\nthree\r\nfour");
  CFileStream f(path.c_str(), CSTREAM_READ | CSTREAM_BINARY);
  CStr line;
  for (const char* e : {"one\n", "two\n", "three\n", "four"}) {
    ASSERT_TRUE(f.Gets(line));
    EXPECT_EQ(std::string(line.c_str()), e);
  }
  EXPECT_FALSE(f.Gets(line));
  f.Rewind();
  char buf[3];
  EXPECT_STREQ(f.Gets(buf, sizeof buf), "on");
  EXPECT_STREQ(f.Gets(buf, sizeof buf), "e\n");
}
