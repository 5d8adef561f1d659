// File and memory streams: blocks and seeks, both byte orders, line ends,
// record framing and the file open modes.
#include <gtest/gtest.h>

#include <memory>

#include "cstream.h"
#include "test_support.h"

using namespace testsup;

namespace {

const int RW = CSTREAM_READ | CSTREAM_WRITE;

std::string Content(const CMemStream& s) {
  std::unique_ptr<CStr> all(s.ToCStr());
  return std::string(all->c_str(), (size_t)all->Length());
}

// Writes scalars and a framed record, then reads them back from the start.
template <class Stream>
void RoundTripScalars(Stream& s) {
  s.WriteWord(0x0102);
  s.WriteLong(0x03040506);
  s.WriteLongLong(0x0708090A0B0C0D0ELL);
  s.WriteDouble(-2.25);
  s.WriteFor("record", 6);
  s.Rewind();
  EXPECT_EQ(s.ReadWord(), 0x0102);
  EXPECT_EQ(s.ReadLong(), 0x03040506);
  EXPECT_EQ(s.ReadLongLong(), 0x0708090A0B0C0D0ELL);
  EXPECT_EQ(s.ReadDouble(), -2.25);
  char rec[7] = {0};
  s.ReadFor(rec, 6);
  EXPECT_STREQ(rec, "record");
  EXPECT_EQ(ThrownCode([&] { s.ReadLong(); }), CERR_GEN_SHORTREAD);
}

}  // namespace

TEST(CMemStream, WritesAcrossBlocksAndSeeks) {
  CMemStream s(RW);
  std::string data(4097, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = (char)(i * 7);
  s.Write(data.data(), (unsigned)data.size());
  EXPECT_EQ(s.GetBlockCount(), 2);
  EXPECT_EQ(Content(s), data);

  // Each seek starts where the previous one left the position.
  const struct {
    int offset, whence, position;
  } seeks[] = {{10, CSTREAM_SEEK_END, 4087}, {5, CSTREAM_SEEK_CUR, 4092}, {-9000, CSTREAM_SEEK_CUR, 0},
               {9000, CSTREAM_SEEK_SET, 4097}, {4095, CSTREAM_SEEK_SET, 4095}};
  for (auto& c : seeks) {
    SCOPED_TRACE(c.offset);
    EXPECT_EQ(s.Seek(c.offset, c.whence), c.position);
  }
  char edge[3] = {0};  // read across the block boundary
  EXPECT_EQ(s.Read(edge, 3), 2u);
  EXPECT_EQ(std::string(edge, 2), data.substr(4095));
  EXPECT_EQ(ThrownCode([&] { s.Getc(); }), CERR_GEN_EOF);

  CMemStream hundred(RW);
  hundred.Write(data.data(), 100);
  EXPECT_EQ(hundred.Seek(10, 1), 90);  // origin 1 counts back from the end
}

TEST(CStreams, BothByteOrdersInMemoryAndOnDisk) {
  TempDir dir;
  const char* expected[] = {"\x01\x02\x03\x04\x05\x06", "\x02\x01\x06\x05\x04\x03"};
  for (int order : {CSTREAM_BIG_ENDIAN, CSTREAM_LITTLE_ENDIAN}) {
    SCOPED_TRACE(order);
    CMemStream mem(RW);
    mem.SetEndian(order);
    RoundTripScalars(mem);
    EXPECT_EQ(Content(mem).substr(0, 6), expected[order]);
    {
      CFileStream file(dir.Join("data.bin").c_str(), CSTREAM_CREATE | CSTREAM_READ | CSTREAM_TRUNC | CSTREAM_BINARY);
      file.SetEndian(order);
      RoundTripScalars(file);
    }
    EXPECT_EQ(dir.Read("data.bin"), Content(mem));
  }
}

TEST(CStreams, LineEndsInAndOut) {
  const struct {
    int flags, mode;
    const char* expect;
  } modes[] = {{RW, CSTREAM_TEXT_CRLF, "a\r\nb\r\n"}, {RW, CSTREAM_TEXT_CR, "a\rb\r"},
               {RW | CSTREAM_BINARY, CSTREAM_TEXT_CRLF, "a\nb\n"}};
  for (auto& c : modes) {
    SCOPED_TRACE(c.expect);
    CMemStream s(c.flags);
    s.SetTextMode(c.mode);
    s.WriteConv("a\n", 2);
    s.Printf("%c\n", 'b');
    EXPECT_EQ(Content(s), c.expect);
  }
  // Text is converted byte by byte, so no bytes is no work; a raw write of
  // nothing is still a mistake.
  CMemStream text(RW), binary(RW | CSTREAM_BINARY);
  EXPECT_EQ(ThrownCode([&] { text.WriteConv("", 0); }), 0);
  EXPECT_EQ(ThrownCode([&] { binary.WriteConv("", 0); }), CERR_GEN_MISSINGARGUMENT);
  EXPECT_EQ(Content(text), "");

  TempDir dir;
  std::string longLine(3000, 'x');
  CFileStream f(dir.Write("lines.txt", "a\rb\nc\r\nd\r\r" + longLine + "\nz").c_str(), CSTREAM_READ | CSTREAM_BINARY);
  CStr line;
  for (const std::string& e : std::vector<std::string>{"a\n", "b\n", "c\n", "d\n", "\n", longLine + "\n", "z"}) {
    ASSERT_TRUE(f.Gets(line));
    EXPECT_EQ(std::string(line.c_str()), e);
  }
  EXPECT_FALSE(f.Gets(line));
}

TEST(CFileStream, UpdateModeAndOpenFailure) {
  TempDir dir;
  CFileStream f(dir.Write("u.txt", "0123456789").c_str(), RW | CSTREAM_BINARY);
  EXPECT_EQ(f.Getc(), '0');
  f.Write("AB", 2);  // straight after a read, with no seek between
  EXPECT_EQ(f.Getc(), '3');
  f.Close();
  EXPECT_EQ(dir.Read("u.txt"), "0AB3456789");
  EXPECT_EQ(ThrownCode([&] { f.Open(dir.Join("none").c_str(), CSTREAM_READ); }), CERR_GEN_OPENREAD);
}
