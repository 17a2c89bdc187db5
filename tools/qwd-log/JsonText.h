#pragma once

// Just enough JSON for log lines: a reader that walks one object and hands
// each member to the caller, and an escaper whose output is always valid
// JSON text, whatever bytes it is given.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : text_(text) {}

  // Called with each member's key while the reader stands on its value; the
  // callback reads the value (String, Integer, Object) or returns false to
  // have it skipped.
  using MemberFn = std::function<bool(const std::string& key)>;

  // An object; members whose callback returns false are skipped whole.
  bool Object(const MemberFn& member);
  bool String(std::string* out);
  bool Integer(int64_t* out);
  // Any value, discarded.
  bool Skip();
  // Blanks, then the given character, consumed.
  bool Expect(char c);
  // Only blanks are left.
  bool AtEnd();

 private:
  void SkipBlanks();
  bool Literal(std::string_view word);
  bool Hex4(uint32_t* out);

  std::string_view text_;  // the whole text
  size_t pos_ = 0;         // next unread byte
};

// text as the body of a JSON string (without the quotes): quotes, backslashes
// and control bytes escaped, bytes that are not valid UTF-8 replaced by
// U+FFFD.
std::string JsonEscape(std::string_view text);
