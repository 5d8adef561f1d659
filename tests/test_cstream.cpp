#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "cerror.h"
#include "cstream.h"
#include "extras_tmpdir.h"

namespace {

const int RW = CSTREAM_READ | CSTREAM_WRITE;

std::string Content(const CMemStream& s) {
  CStr* all = s.ToCStr();
  std::string out(all->c_str(), (size_t)all->Length());
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

void Fill(CMemStream& s, int n) {
  for (int i = 0; i < n; ++i) s.WriteByte((unsigned char)i);
}

}  // namespace

TEST(CMemStream, GrowsByWholeBlocksAndReadsAcrossThem) {
  CMemStream s(RW);
  EXPECT_EQ(s.GetSize(), 0);
  std::string data(4097, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = (char)(i * 7);
  s.Write(data.data(), (unsigned)data.size());
  EXPECT_EQ(s.GetBlockCount(), 2);
  EXPECT_EQ(Content(s), data);
  CMem* mem = s.ToCMem();
  EXPECT_EQ(std::string(mem->Data(), mem->Length()), data);
  delete mem;
  s.Rewind();
  std::string back(4097, '\0');
  EXPECT_EQ(s.Read(&back[0], 5000), 4097u);
  EXPECT_EQ(back, data);
}

TEST(CMemStream, SeeksClampAndLandOnTheRightByte) {
  CMemStream s(RW);
  Fill(s, 100);
  EXPECT_EQ(s.Seek(10, CSTREAM_SEEK_END), 90);  // counts back from the end
  EXPECT_EQ(s.ReadByte(), 90);
  EXPECT_EQ(s.Seek(5, CSTREAM_SEEK_CUR), 96);
  EXPECT_EQ(s.Seek(-500, CSTREAM_SEEK_CUR), 0);
  EXPECT_EQ(s.Seek(1000, CSTREAM_SEEK_SET), 100);
  EXPECT_EQ(ThrownCode([&] { s.Getc(); }), CERR_GEN_EOF);

  CMemStream big(RW);
  Fill(big, 8192 + 10);
  for (int target : {4095, 4096, 4097, 8192}) {
    big.Seek(target, CSTREAM_SEEK_SET);
    EXPECT_EQ(big.ReadByte(), target & 0xff) << target;
  }
  big.Seek(4096, CSTREAM_SEEK_SET);  // overwrite on a block boundary
  big.WriteByte(0xAA);
  EXPECT_EQ(big.GetSize(), 8192 + 11);  // overwriting counts towards Size
  big.Seek(-2, CSTREAM_SEEK_CUR);
  EXPECT_EQ(big.ReadByte(), 0xFF);
  EXPECT_EQ(big.ReadByte(), 0xAA);
}

TEST(CMemStream, ScalarsAndArraysInBothByteOrders) {
  for (int order : {CSTREAM_BIG_ENDIAN, CSTREAM_LITTLE_ENDIAN}) {
    CMemStream s(RW);
    s.SetEndian(order);
    s.WriteWord(0x0102);
    s.WriteLong(0x03040506);
    s.WriteLongLong(0x0708090A0B0C0D0ELL);
    const int ints[2] = {0x01020304, 5};
    s.WriteArray(ints, 2);
    s.WriteDouble(-2.25);
    EXPECT_EQ(ints[0], 0x01020304);  // the caller's data stays as it was
    const char* big = "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x01\x02\x03\x04";
    const char* little = "\x02\x01\x06\x05\x04\x03\x0E\x0D\x0C\x0B\x0A\x09\x08\x07\x04\x03\x02\x01";
    EXPECT_EQ(Content(s).substr(0, 18), std::string(order == CSTREAM_BIG_ENDIAN ? big : little, 18));

    s.Rewind();
    EXPECT_EQ(s.ReadWord(), 0x0102);
    EXPECT_EQ(s.ReadLong(), 0x03040506);
    EXPECT_EQ(s.ReadLongLong(), 0x0708090A0B0C0D0ELL);
    int back[3] = {0, 0, 0x11223344};  // the item past n must stay untouched
    s.ReadArray(back, 2);
    EXPECT_EQ(back[0], 0x01020304);
    EXPECT_EQ(back[2], 0x11223344);
    EXPECT_EQ(s.ReadDouble(), -2.25);
    EXPECT_EQ(ThrownCode([&] { s.ReadLong(); }), CERR_GEN_SHORTREAD);
  }
  // A run longer than one swap slice.
  CMemStream s(RW);
  s.SetEndian(CSTREAM_BIG_ENDIAN);
  static long long many[2000], again[2000];
  for (int i = 0; i < 2000; ++i) many[i] = (long long)i * 0x0101010101LL;
  s.WriteArray(many, 2000);
  s.Rewind();
  s.ReadArray(again, 2000);
  EXPECT_EQ(memcmp(many, again, sizeof many), 0);
}

TEST(CMemStream, RecordFraming) {
  CMemStream s(RW);
  s.SetEndian(CSTREAM_BIG_ENDIAN);
  s.WriteFor("12345678", 8);
  EXPECT_EQ(Content(s), std::string("\0\0\0\x08" "12345678" "\0\0\0\x08", 16));
  s.Rewind();
  char data[9] = {0};
  s.ReadFor(data, 8);
  EXPECT_STREQ(data, "12345678");
  s.Rewind();
  char tooMuch[20];
  EXPECT_EQ(ThrownCode([&] { s.ReadFor(tooMuch, 20); }), CERR_GEN_SHORTREAD);
}

TEST(CMemStream, TextModesAndLineReading) {
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
    s.Printf("%c\n", 'b');
    EXPECT_EQ(Content(s), c.expect) << c.flags << "/" << c.mode;
  }

  CMemStream s(RW | CSTREAM_BINARY);
  std::string text = "a\rb\nc\r\nd\r\r" + std::string(3000, 'x') + "\nz";
  s.Write(text.data(), (unsigned)text.size());
  s.Rewind();
  CStr line;
  std::vector<std::string> lines = {"a\n", "b\n", "c\n", "d\n", "\n", std::string(3000, 'x') + "\n", "z"};
  for (const std::string& e : lines) {
    ASSERT_TRUE(s.Gets(line));
    EXPECT_EQ(std::string(line.c_str()), e);
  }
  EXPECT_FALSE(s.Gets(line));
  EXPECT_TRUE(line.IsEmpty());
}

TEST(CMemStream, AccessFlagsAndArguments) {
  CMemStream readOnly(CSTREAM_READ);
  EXPECT_EQ(ThrownCode([&] { readOnly.Write("x", 1); }), CERR_GEN_ACCESS);
  CMemStream writeOnly(CSTREAM_WRITE);
  char c;
  EXPECT_EQ(ThrownCode([&] { writeOnly.Read(&c, 1); }), CERR_GEN_ACCESS);
  EXPECT_EQ(ThrownCode([&] { writeOnly.Write(nullptr, 1); }), CERR_GEN_MISSINGARGUMENT);
}

TEST(CFileStream, OpenFailuresAndStandardStreams) {
  ExtrasTempDir dir;
  CFileStream f;
  EXPECT_EQ(ThrownCode([&] { f.Open("", CSTREAM_READ); }), CERR_GEN_MISSINGARGUMENT);
  EXPECT_EQ(ThrownCode([&] { f.Open("x", 0); }), CERR_GEN_MISSINGARGUMENT);
  EXPECT_EQ(ThrownCode([&] { f.Open(dir.File("none").c_str(), CSTREAM_READ); }), CERR_GEN_OPENREAD);
  EXPECT_EQ(ThrownCode([&] { f.Open(dir.File("no/dir").c_str(), CSTREAM_CREATE); }), CERR_GEN_OPENWRITE);
  char c;
  EXPECT_EQ(ThrownCode([&] { f.Read(&c, 1); }), CERR_GEN_FILENOTOPEN);
  f.Open(dir.File("w").c_str(), CSTREAM_CREATE);  // create implies write, not read
  EXPECT_EQ(ThrownCode([&] { f.Read(&c, 1); }), CERR_GEN_ACCESS);
  f.Open("stdout", CSTREAM_WRITE);
  EXPECT_EQ(f.GetFileHandle(), stdout);
  f.Close();  // must leave the process's stdout open
  EXPECT_NE(fflush(stdout), EOF);
}

TEST(CFileStream, ByteOrderRecordsAndSeeksOnDisk) {
  ExtrasTempDir dir;
  std::string path = dir.File("data.bin");
  {
    CFileStream f(path.c_str(), CSTREAM_CREATE | CSTREAM_BINARY);
    f.SetEndian(CSTREAM_BIG_ENDIAN);
    f.WriteLong(0x01020304);
    f.SetEndian(CSTREAM_LITTLE_ENDIAN);
    f.WriteLong(0x01020304);
    f.WriteFor("abcdefgh", 8);
  }
  std::string bytes = dir.Read("data.bin");
  EXPECT_EQ(bytes.substr(0, 12), std::string("\x01\x02\x03\x04\x04\x03\x02\x01\x08\0\0\0", 12));

  CFileStream f(path.c_str(), CSTREAM_READ | CSTREAM_BINARY);
  EXPECT_EQ(f.Seek(8, CSTREAM_SEEK_SET), 8);
  char rec[9] = {0};
  f.ReadFor(rec, 8);
  EXPECT_STREQ(rec, "abcdefgh");
  EXPECT_TRUE(f.GetEof());
  EXPECT_EQ(ThrownCode([&] { f.Getc(); }), CERR_GEN_EOF);
  EXPECT_EQ(f.Seek(-4, CSTREAM_SEEK_END), 20);  // from-end offsets are added here
  EXPECT_EQ(f.ReadLong(), 8);
  EXPECT_EQ(ThrownCode([&] { f.Seek(-100, CSTREAM_SEEK_SET); }), CERR_GEN_SEEK);
}

TEST(CFileStream, UpdateModeAndLineEnds) {
  ExtrasTempDir dir;
  std::string path = dir.Write("u.txt", "0123456789");
  CFileStream f(path.c_str(), CSTREAM_READ | CSTREAM_WRITE | CSTREAM_BINARY);
  EXPECT_EQ(f.Getc(), '0');
  f.Write("AB", 2);  // straight after a read, no explicit seek
  EXPECT_EQ(f.Getc(), '3');
  f.Close();
  EXPECT_EQ(dir.Read("u.txt"), "0AB3456789");

  path = dir.Write("lines.txt", "one\rtwo\nthree\r\nfour");
  f.Open(path.c_str(), CSTREAM_READ | CSTREAM_BINARY);
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
