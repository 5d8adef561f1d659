// FastCGI records as the client writes them and reads them back.
#include <gtest/gtest.h>

#include <string>

#include "cfastcgi.h"

namespace {

FcgiHeader HeaderAt(const std::string& data, size_t at) {
  FcgiHeader h;
  EXPECT_TRUE(FcgiParseHeader(reinterpret_cast<const unsigned char*>(data.data() + at), &h));
  return h;
}

TEST(Fcgi, NameValueLengthsTakeOneOrFourBytes) {
  struct {
    size_t NameLen, ValueLen, Encoded;
  } cases[] = {{1, 0, 2 + 1}, {127, 127, 2 + 254}, {128, 1, 5 + 129}, {3, 70000, 5 + 70003}};
  for (auto& c : cases) {
    std::string name(c.NameLen, 'n'), value(c.ValueLen, 'v'), out;
    FcgiAddNameValue(out, name.data(), name.size(), value.data(), value.size());
    EXPECT_EQ(out.size(), c.Encoded) << c.NameLen << "/" << c.ValueLen;
    std::vector<std::pair<std::string, std::string>> pairs;
    ASSERT_TRUE(FcgiParseNameValues(out.data(), out.size(), &pairs));
    ASSERT_EQ(pairs.size(), 1u);
    EXPECT_EQ(pairs[0].first, name);
    EXPECT_EQ(pairs[0].second, value);
    std::vector<std::pair<std::string, std::string>> cut;
    EXPECT_FALSE(FcgiParseNameValues(out.data(), out.size() - 1, &cut));
  }
}

TEST(Fcgi, LongStreamIsSplitIntoPaddedRecords) {
  std::string data(65535 + 10, 'x'), out;
  FcgiAddRecord(out, FCGI_STDIN, 1, data.data(), data.size());
  FcgiAddRecord(out, FCGI_STDIN, 1, nullptr, 0);
  FcgiHeader first = HeaderAt(out, 0);
  EXPECT_EQ(first.Type, FCGI_STDIN);
  EXPECT_EQ(first.RequestId, 1);
  EXPECT_EQ(first.ContentLength, 65535u);
  EXPECT_EQ(first.PaddingLength, 1u);
  size_t second = 8 + 65535 + 1;
  EXPECT_EQ(HeaderAt(out, second).ContentLength, 10u);
  EXPECT_EQ(HeaderAt(out, second).PaddingLength, 6u);
  size_t end = second + 8 + 16;
  EXPECT_EQ(HeaderAt(out, end).ContentLength, 0u);
  EXPECT_EQ(out.size(), end + 8);
}

TEST(Fcgi, ParamsKeepOrderAndSplitAtTheFirstEquals) {
  CStrList env;
  for (const char* e : {"A=1", "COOKIE=x=y; z=", "EMPTY=", "NOEQUALS"}) env.Add(e);
  for (bool lastFirst : {false, true}) {
    std::string out;
    FcgiAddParams(out, 7, env, lastFirst);
    FcgiHeader h = HeaderAt(out, 0);
    EXPECT_EQ(h.Type, FCGI_PARAMS);
    EXPECT_EQ(h.RequestId, 7);
    std::vector<std::pair<std::string, std::string>> pairs;
    ASSERT_TRUE(FcgiParseNameValues(out.data() + 8, h.ContentLength, &pairs));
    std::vector<std::pair<std::string, std::string>> expected = {
        {"A", "1"}, {"COOKIE", "x=y; z="}, {"EMPTY", ""}, {"NOEQUALS", ""}};
    if (lastFirst) expected = {expected.rbegin(), expected.rend()};
    EXPECT_EQ(pairs, expected);
    EXPECT_EQ(HeaderAt(out, 8 + h.ContentLength + h.PaddingLength).ContentLength, 0u);  // end of the stream
  }
}

// The whole stream back from its records, whatever their number: empty,
// one record, or pairs spread over several (a pair may straddle two).
TEST(Fcgi, ParamsStreamOfAnySize) {
  std::vector<std::vector<std::string>> lists = {
      {}, {"ONLY="}, {"A=1", "BIG=" + std::string(70000, 'v'), "Z=last"}, {"X=" + std::string(65530, 'x'), "Y=y"}};
  for (const auto& list : lists) {
    CStrList env;
    for (const std::string& e : list) env.Add(e.c_str());
    std::string out, joined;
    FcgiAddParams(out, 3, env);
    size_t at = 0, records = 0;
    for (;;) {
      ASSERT_LE(at + 8, out.size());
      FcgiHeader h = HeaderAt(out, at);
      EXPECT_EQ(h.Type, FCGI_PARAMS);
      records++;
      if (h.ContentLength == 0) break;
      joined.append(out, at + 8, h.ContentLength);
      at += 8 + h.ContentLength + h.PaddingLength;
    }
    EXPECT_EQ(at + 8, out.size()) << "one empty record ends the stream";
    std::vector<std::pair<std::string, std::string>> pairs;
    ASSERT_TRUE(FcgiParseNameValues(joined.data(), joined.size(), &pairs));
    ASSERT_EQ(pairs.size(), list.size());
    for (size_t i = 0; i < list.size(); i++) EXPECT_EQ(pairs[i].first + "=" + pairs[i].second, list[i]);
    EXPECT_EQ(records, list.empty() ? 1u : joined.size() <= 65535 ? 2u : 3u);
  }
}

TEST(Fcgi, HeaderAndEndRequestDecoding) {
  const unsigned char badVersion[8] = {2, 6, 0, 1, 0, 0, 0, 0};
  FcgiHeader h;
  EXPECT_FALSE(FcgiParseHeader(badVersion, &h));
  const unsigned char end[8] = {0, 0, 1, 2, 3, 0, 0, 0};
  FcgiEndRequest e;
  ASSERT_TRUE(FcgiParseEndRequest(end, 8, &e));
  EXPECT_EQ(e.AppStatus, 258u);
  EXPECT_EQ(e.ProtocolStatus, 3);
  EXPECT_FALSE(FcgiParseEndRequest(end, 7, &e));
}

}  // namespace
