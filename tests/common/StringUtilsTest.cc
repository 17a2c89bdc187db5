#include "common/StringUtils.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "common/StatusCode.h"
#include "tests/support/LogCapture.h"

namespace {

std::string CutLine(int blanks, int room, int len, const char* beginning) {
  return "Can't fully copy a string - destination buffer is too small (" + std::to_string(room) +
         ") for strlen = " + std::to_string(len) + "." + std::string(blanks, ' ') +
         "Beginning of the string: '" + beginning + "'\n";
}

using CopyFn = int32_t (*)(char*, size_t, const char*);
const char kUnterminated[4] = {'w', 'x', 'y', 'z'};

TEST(BoundedCopyTest, EdgesReturnsAndLogText) {
  const CopyFn strn3 = [](char* d, size_t n, const char* s) { return SafeStrnCopy(d, n, s, 3); };
  const CopyFn strn4 = [](char* d, size_t n, const char* s) { return SafeStrnCopy(d, n, s, 4); };
  const CopyFn cat = [](char* d, size_t n, const char* s) {
    return static_cast<int32_t>(SafeStrCat(d, n, s) - d);
  };
  // copy, size, destination before, source, result, destination after, log
  const std::tuple<CopyFn, size_t, const char*, const char*, int32_t, const char*, std::string>
      cases[] = {{SafeStrCopy, 8, "", "abcdefg", 7, "abcdefg", ""},
                 {SafeStrCopy, 4, "", "0123456789abcdefghijK", -1, "012",
                  CutLine(25, 3, 21, "0123456789abcdefghij")},
                 {SafeStrCopyNoLogs, 4, "", "abcd", -1, "abc", ""},
                 {strn3, 8, "", kUnterminated, 3, "wxy", ""},
                 {strn4, 3, "", kUnterminated, -1, "wx", CutLine(21, 2, 4, "wxyz")},
                 {cat, 8, "abcde", "xyz", 0, "abcdexy", CutLine(13, 2, 3, "xyz")},
                 {SafeStrCopy, 4, "old", nullptr, -1, "old",
                  "ASSERT FAILED: dest != NULL && src != NULL \n"}};
  for (const auto& [copy, size, before, src, ret, after, line] : cases) {
    SCOPED_TRACE(after);
    LogCapture log;
    char dst[8];
    std::strcpy(dst, before);
    EXPECT_EQ(ret, copy(dst, size, src));
    EXPECT_STREQ(after, dst);
    EXPECT_EQ(line, log.Dump());
  }
}

TEST(ParseTest, TokensIntegersAndBooleans) {
  LogCapture log;
  char dst[8] = "old";
  EXPECT_EQ(0, GetTokenByDelimiter("a=b", dst, 0, "="));
  EXPECT_EQ("ERROR: wrong parameters in the function GetTokenByDelimiter\n", log.Dump());
  // source, room, length, token: a cut token is silent
  const std::tuple<const char*, size_t, int32_t, const char*> tokens[] = {
      {"key=value", 4, 3, "key"}, {"key=value", 3, 2, "ke"}, {"=v", 8, 0, ""}};
  for (const auto& [src, size, ret, token] : tokens) {
    EXPECT_EQ(ret, GetTokenByDelimiter(src, dst, size, "=:"));
    EXPECT_STREQ(token, dst);
  }
  // C literal rules; a bad tail keeps the value read so far
  const std::tuple<const char*, bool, int32_t> ints[] = {{"0x10", true, 16}, {"010", true, 8},
                                                         {"-42", true, -42}, {"12abc", false, 12},
                                                         {"09", false, 0},   {"", true, 0}};
  for (const auto& [text, ok, expected] : ints) {
    int32_t value = -1;
    EXPECT_EQ(ok, ParseIntStr(&value, text)) << text;
    EXPECT_EQ(expected, value) << text;
  }
  uint8_t out = 7;
  EXPECT_TRUE(StrToBoolStrict("False", &out) && out == 0);
  for (const char* bad : {"truex", "t"}) EXPECT_FALSE(StrToBoolStrict(bad, &out)) << bad;
  EXPECT_STREQ("False", BoolToStr(0x100)) << "only the low byte counts";
}

TEST(JsonEscapeTest, DoubledControlEscapesAndWholeEscapesOrNone) {
  const std::tuple<const char*, size_t, bool, const char*> cases[] = {
      {"a\tb", 64, true, "a\\\\tb"},      {"\x01", 64, true, "\\\\u0001"},
      {"q\"s\\", 64, true, "q\\\"s\\\\"}, {"\xc3\xa9", 64, true, "\xc3\xa9"},
      {"ab\ncd", 5, false, "ab"},         {"ab\"", 4, false, "ab"}};
  for (const auto& [src, size, ok, out] : cases) {
    char dst[64];
    EXPECT_EQ(ok, EscapeJsonString(src, dst, size)) << src;
    EXPECT_STREQ(out, dst);
  }
}

TEST(PrintableTest, BoundedSearchCopyAndReplace) {
  EXPECT_STREQ("/c/d", SafeStrrchr("a/b/c/d", '/', 5));
  char dst[8];
  const char src[] = {'a', '\0', '\n', 'b', '\x7f', 'c'};
  EXPECT_STREQ("a..b.c", MakePrintableCopy(dst, sizeof(dst), src, sizeof(src)));
  EXPECT_STREQ("a..", MakePrintableCopy(dst, 4, src, sizeof(src)));
  char text[] = "a-b-c\0-d";
  ReplaceCharInString(text, 100, '-', '_');
  EXPECT_EQ(std::string("a_b_c\0-d", 8), std::string(text, 8)) << "nothing past the terminator";
  EXPECT_STREQ("UNKNOWN", StatusCodeToStr(StatusCode::NUM_OF));
}

}  // namespace
