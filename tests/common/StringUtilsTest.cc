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
  EXPECT_STREQ("False", BoolToStr(0x100)) << "only the low byte counts";
  EXPECT_STREQ("UNKNOWN", StatusCodeToStr(StatusCode::NUM_OF));
}

}  // namespace
