#include "common/StringUtils.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/StatusCode.h"
#include "tests/support/LogCapture.h"

namespace {

TEST(StatusCodeTest, NamesStopBeforeTheCount) {
  EXPECT_STREQ("SUCCESS", StatusCodeToStr(StatusCode::SUCCESS));
  EXPECT_STREQ("IRRELEVANT", StatusCodeToStr(StatusCode::IRRELEVANT));
  EXPECT_STREQ("PROTO_DECODING_FAILED", StatusCodeToStr(static_cast<StatusCode>(22)));
  EXPECT_STREQ("UNKNOWN", StatusCodeToStr(StatusCode::NUM_OF));
  EXPECT_STREQ("UNKNOWN", StatusCodeToStr(static_cast<StatusCode>(0xFFFFFFFFu)));
}

class BoundedCopyTest : public ::testing::Test {
 protected:
  LogCapture log_;
};

TEST_F(BoundedCopyTest, CopyThatFitsExactlyIsSilent) {
  char dst[8];
  EXPECT_EQ(7, SafeStrCopy(dst, sizeof(dst), "abcdefg"));
  EXPECT_STREQ("abcdefg", dst);
  EXPECT_TRUE(log_.Lines().empty()) << log_.Dump();
}

TEST_F(BoundedCopyTest, CopyOneCharacterTooLongIsCutAndLogged) {
  char dst[8];
  EXPECT_EQ(-1, SafeStrCopy(dst, sizeof(dst), "abcdefgh"));
  EXPECT_STREQ("abcdefg", dst);
  ASSERT_EQ(1u, log_.Lines().size());
  EXPECT_EQ(LoggerLevel::INFO, log_.Lines()[0].level);
  EXPECT_EQ(
      "Can't fully copy a string - destination buffer is too small (7) for strlen = 8."
      "                         Beginning of the string: 'abcdefgh'\n",
      log_.Lines()[0].message);
}

TEST_F(BoundedCopyTest, LoggedBeginningIsTwentyCharacters) {
  char dst[4];
  SafeStrCopy(dst, sizeof(dst), "0123456789abcdefghijKLMNOP");
  EXPECT_TRUE(log_.Contains("Beginning of the string: '0123456789abcdefghij'\n"));
}

TEST_F(BoundedCopyTest, NoLogsVariantOnlyReturnsMinusOne) {
  char dst[4];
  EXPECT_EQ(-1, SafeStrCopyNoLogs(dst, sizeof(dst), "abcd"));
  EXPECT_STREQ("abc", dst);
  EXPECT_TRUE(log_.Lines().empty());
}

TEST_F(BoundedCopyTest, BoundedSourceNeedNotBeTerminated) {
  const char unterminated[4] = {'w', 'x', 'y', 'z'};
  char dst[8];
  EXPECT_EQ(3, SafeStrnCopy(dst, sizeof(dst), unterminated, 3));
  EXPECT_STREQ("wxy", dst);
  char small[3];
  EXPECT_EQ(-1, SafeStrnCopy(small, sizeof(small), unterminated, 4));
  EXPECT_STREQ("wx", small);
  EXPECT_TRUE(log_.Contains("too small (2) for strlen = 4.                     Beginning"));
}

TEST_F(BoundedCopyTest, NullArgumentsAreReportedNotDereferenced) {
  char dst[4] = "old";
  EXPECT_EQ(-1, SafeStrCopy(dst, sizeof(dst), nullptr));
  EXPECT_STREQ("old", dst);
  EXPECT_EQ(1u, log_.Count(LoggerLevel::ERROR, "ASSERT FAILED: dest != NULL && src != NULL \n"));
}

TEST_F(BoundedCopyTest, AppendLogsTheRoomThatWasLeft) {
  char dst[8] = "abcde";
  EXPECT_EQ(dst, SafeStrCat(dst, sizeof(dst), "xyz"));
  EXPECT_STREQ("abcdexy", dst);
  EXPECT_EQ(
      "Can't fully copy a string - destination buffer is too small (2) for strlen = 3."
      "             Beginning of the string: 'xyz'\n",
      log_.Dump());
}

TEST_F(BoundedCopyTest, AppendIntoFullBufferKeepsIt) {
  char dst[4] = "abc";
  SafeStrCat(dst, sizeof(dst), "d");
  EXPECT_STREQ("abc", dst);
  EXPECT_TRUE(log_.Contains("too small (0) for strlen = 1."));
}

TEST(StringSearchTest, LastOccurrenceWithinBound) {
  const char* text = "a/b/c/d";
  EXPECT_EQ(text + 5, SafeStrrchr(text, '/', 100));
  EXPECT_EQ(text + 3, SafeStrrchr(text, '/', 5));
  EXPECT_EQ(nullptr, SafeStrrchr(text, '#', 100));
  EXPECT_EQ(nullptr, SafeStrrchr(text, '/', 0));
}

TEST(StringSearchTest, DuplicateIsAnIndependentCopy) {
  char original[] = "payload";
  auto copy = DuplicateString(original);
  ASSERT_NE(nullptr, copy);
  original[0] = 'X';
  EXPECT_STREQ("payload", copy.get());
  EXPECT_EQ(nullptr, DuplicateString(nullptr));
}

TEST(TokenTest, LeadingTokenIsCutSilently) {
  LogCapture log;
  char dst[8];
  EXPECT_EQ(3, GetTokenByDelimiter("key=value", dst, 4, "="));
  EXPECT_STREQ("key", dst);
  EXPECT_EQ(2, GetTokenByDelimiter("key=value", dst, 3, "="));
  EXPECT_STREQ("ke", dst);
  EXPECT_EQ(0, GetTokenByDelimiter("=v", dst, sizeof(dst), "="));
  EXPECT_STREQ("", dst);
  EXPECT_EQ(5, GetTokenByDelimiter("alone", dst, sizeof(dst), "=:"));
  EXPECT_TRUE(log.Lines().empty());
}

TEST(TokenTest, BadArgumentsLeaveDestinationUntouched) {
  LogCapture log;
  char dst[4] = "old";
  EXPECT_EQ(0, GetTokenByDelimiter(nullptr, dst, sizeof(dst), "="));
  EXPECT_EQ(0, GetTokenByDelimiter("a=b", dst, 0, "="));
  EXPECT_STREQ("old", dst);
  EXPECT_EQ(2u, log.Count("ERROR: wrong parameters in the function GetTokenByDelimiter\n"));
}

TEST(ParseTest, IntegersFollowTheCLiteralRules) {
  int32_t value = -1;
  EXPECT_TRUE(ParseIntStr(&value, "0x10"));
  EXPECT_EQ(16, value);
  EXPECT_TRUE(ParseIntStr(&value, "010"));
  EXPECT_EQ(8, value);
  EXPECT_TRUE(ParseIntStr(&value, "-42"));
  EXPECT_EQ(-42, value);
  EXPECT_FALSE(ParseIntStr(&value, "12abc"));
  EXPECT_EQ(12, value) << "the partial value is stored";
  EXPECT_FALSE(ParseIntStr(&value, "09"));
  EXPECT_TRUE(ParseIntStr(&value, ""));
  EXPECT_EQ(0, value);
}

TEST(ParseTest, BooleansLooseAndStrict) {
  EXPECT_TRUE(StrToBool("TRUE"));
  EXPECT_TRUE(StrToBool("tRuE"));
  EXPECT_FALSE(StrToBool("1"));
  EXPECT_FALSE(StrToBool("true "));
  uint8_t out = 7;
  EXPECT_TRUE(StrToBoolStrict("False", &out));
  EXPECT_EQ(0, out);
  EXPECT_TRUE(StrToBoolStrict("TRUE", &out));
  EXPECT_EQ(1, out);
  out = 7;
  EXPECT_FALSE(StrToBoolStrict("truex", &out));
  EXPECT_FALSE(StrToBoolStrict("t", &out));
  EXPECT_FALSE(StrToBoolStrict("falsey", &out));
  EXPECT_EQ(7, out);
  EXPECT_STREQ("True", BoolToStr(1));
  EXPECT_STREQ("False", BoolToStr(0x100)) << "only the low byte counts";
}

TEST(JsonEscapeTest, ControlCharactersGetDoubledBackslashes) {
  char dst[64];
  EXPECT_TRUE(EscapeJsonString("a\tb", dst, sizeof(dst)));
  EXPECT_STREQ("a\\\\tb", dst);
  EXPECT_TRUE(EscapeJsonString("\x01", dst, sizeof(dst)));
  EXPECT_STREQ("\\\\u0001", dst);
  EXPECT_TRUE(EscapeJsonString("q\"s\\", dst, sizeof(dst)));
  EXPECT_STREQ("q\\\"s\\\\", dst);
  EXPECT_TRUE(EscapeJsonString("\xc3\xa9", dst, sizeof(dst))) << "high bytes pass unchanged";
  EXPECT_STREQ("\xc3\xa9", dst);
}

TEST(JsonEscapeTest, EscapeThatDoesNotFitIsRemovedWhole) {
  char dst[5];
  EXPECT_FALSE(EscapeJsonString("ab\ncd", dst, sizeof(dst)));
  EXPECT_STREQ("ab", dst);
  char quote[4];
  EXPECT_FALSE(EscapeJsonString("ab\"", quote, sizeof(quote)));
  EXPECT_STREQ("ab", quote);
  char one[1];
  EXPECT_TRUE(EscapeJsonString("", one, sizeof(one)));
  EXPECT_FALSE(EscapeJsonString("x", one, sizeof(one)));
  EXPECT_STREQ("", one);
}

TEST(PrintableTest, CopiesNulsAndHidesUnprintables) {
  char dst[8];
  const char src[] = {'a', '\0', '\n', 'b', '\x7f', 'c'};
  EXPECT_STREQ("a..b.c", MakePrintableCopy(dst, sizeof(dst), src, sizeof(src)));
  EXPECT_STREQ("a..", MakePrintableCopy(dst, 4, src, sizeof(src)));
  EXPECT_STREQ("", MakePrintableCopy(dst, sizeof(dst), src, 0));
}

TEST(PrintableTest, ReplaceStopsAtBoundAndTerminator) {
  char text[] = "a-b-c\0-d";
  ReplaceCharInString(text, 3, '-', '_');
  EXPECT_STREQ("a_b-c", text);
  ReplaceCharInString(text, 100, '-', '_');
  EXPECT_STREQ("a_b_c", text);
  EXPECT_EQ('-', text[6]) << "nothing past the terminator";
}

TEST(LogEntityTest, LookupsAndTheirBounds) {
  EXPECT_EQ(LogEntity::WATCHDOG_LOGGER, LogEntity::GetEnumFromStr("WatchdogLogger"));
  EXPECT_EQ(LogEntity::NUM_OF, LogEntity::GetEnumFromStr("watchdoglogger"));
  EXPECT_EQ(LogEntity::NUM_OF, LogEntity::GetEnumFromStr("Unknown"));
  EXPECT_STREQ("SystemStackTrace", LogEntity::ToStr(7));
  EXPECT_STREQ("N/A", LogEntity::ToStr(8));
  EXPECT_EQ(2, LogEntity::ToNumFiles(LogEntity::WATCHDOG_LOGGER));
  EXPECT_EQ(25000, LogEntity::ToFileSize(LogEntity::WATCHDOG_LOGGER));
  EXPECT_EQ(5, LogEntity::ToNumFiles(LogEntity::AGENT_LOGGER));
  EXPECT_EQ(-1, LogEntity::ToNumFiles(8));
  EXPECT_EQ(-1, LogEntity::ToFileSize(100));
}

}  // namespace
