#include "tools/qwd-log/JsonText.h"

#include <cstdio>

namespace {

// Appends code point cp as UTF-8.
void AppendUtf8(std::string* out, uint32_t cp) {
  if (cp < 0x80) {
    out->push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out->push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out->push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out->push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out->push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// Length of the valid UTF-8 sequence at text[pos], 0 when it is not one
// (overlong forms, surrogates and values past U+10FFFF included).
size_t Utf8SequenceLength(std::string_view text, size_t pos) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[pos + i]); };
  const uint8_t lead = byte(0);
  size_t length = 0;
  uint32_t cp = 0;
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2, cp = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3, cp = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4, cp = lead & 0x07;
  } else {
    return 0;
  }
  if (pos + length > text.size()) return 0;
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (byte(i) & 0x3F);
  }
  const bool overlong = (length == 3 && cp < 0x800) || (length == 4 && cp < 0x10000);
  if (overlong || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF) return 0;
  return length;
}

}  // namespace

std::string JsonEscape(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (size_t pos = 0; pos < text.size();) {
    const char c = text[pos];
    const size_t length = Utf8SequenceLength(text, pos);
    if (length == 0) {
      AppendUtf8(&out, 0xFFFD);
      ++pos;
      continue;
    }
    if (c == '"' || c == '\\') {
      out.push_back('\\');
      out.push_back(c);
    } else if (static_cast<uint8_t>(c) < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned>(c));
      out += escaped;
    } else {
      out.append(text.substr(pos, length));
    }
    pos += length;
  }
  return out;
}

void JsonReader::SkipBlanks() {
  while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\t' || text_[pos_] == '\r' ||
                                 text_[pos_] == '\n')) {
    ++pos_;
  }
}

bool JsonReader::Expect(char c) {
  SkipBlanks();
  if (pos_ >= text_.size() || text_[pos_] != c) return false;
  ++pos_;
  return true;
}

bool JsonReader::AtEnd() {
  SkipBlanks();
  return pos_ == text_.size();
}

bool JsonReader::Literal(std::string_view word) {
  SkipBlanks();
  if (text_.substr(pos_, word.size()) != word) return false;
  pos_ += word.size();
  return true;
}

bool JsonReader::Hex4(uint32_t* out) {
  if (pos_ + 4 > text_.size()) return false;
  *out = 0;
  for (int i = 0; i < 4; ++i) {
    const char c = text_[pos_++];
    const int digit = c >= '0' && c <= '9'   ? c - '0'
                      : c >= 'a' && c <= 'f' ? c - 'a' + 10
                      : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                             : -1;
    if (digit < 0) return false;
    *out = (*out << 4) | static_cast<uint32_t>(digit);
  }
  return true;
}

bool JsonReader::String(std::string* out) {
  if (!Expect('"')) return false;
  out->clear();
  while (pos_ < text_.size()) {
    const char c = text_[pos_++];
    if (c == '"') return true;
    if (static_cast<uint8_t>(c) < 0x20) return false;
    if (c != '\\') {
      out->push_back(c);
      continue;
    }
    if (pos_ >= text_.size()) return false;
    const char e = text_[pos_++];
    static constexpr std::string_view kEscapes = "\"\\/bfnrt";
    static constexpr std::string_view kMeanings = "\"\\/\b\f\n\r\t";
    const size_t known = kEscapes.find(e);
    uint32_t cp = 0;
    if (known != std::string_view::npos) {
      out->push_back(kMeanings[known]);
    } else if (e == 'u' && Hex4(&cp)) {
      uint32_t low = 0;
      if (cp >= 0xD800 && cp <= 0xDBFF && Literal("\\u") && Hex4(&low) && low >= 0xDC00 &&
          low <= 0xDFFF) {
        cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
      } else if (cp >= 0xD800 && cp <= 0xDFFF) {
        return false;
      }
      AppendUtf8(out, cp);
    } else {
      return false;
    }
  }
  return false;
}

bool JsonReader::Integer(int64_t* out) {
  SkipBlanks();
  const size_t start = pos_;
  if (pos_ < text_.size() && text_[pos_] == '-') ++pos_;
  int64_t value = 0;
  const size_t digits = pos_;
  while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9' && pos_ - digits < 18) {
    value = value * 10 + (text_[pos_++] - '0');
  }
  if (pos_ == digits) return false;
  *out = text_[start] == '-' ? -value : value;
  return true;
}

bool JsonReader::Skip() {
  SkipBlanks();
  if (pos_ >= text_.size()) return false;
  std::string ignored;
  int64_t number = 0;
  switch (text_[pos_]) {
    case '"':
      return String(&ignored);
    case '{':
      return Object([](const std::string&) { return false; });
    case '[':
      ++pos_;
      if (Expect(']')) return true;
      do {
        if (!Skip()) return false;
      } while (Expect(','));
      return Expect(']');
    default:
      if (Literal("true") || Literal("false") || Literal("null")) return true;
      if (!Integer(&number)) return false;
      // Fractions and exponents: the rest of the number.
      while (pos_ < text_.size() &&
             std::string_view("0123456789.eE+-").find(text_[pos_]) != std::string_view::npos) {
        ++pos_;
      }
      return true;
  }
}

bool JsonReader::Object(const MemberFn& member) {
  if (!Expect('{')) return false;
  if (Expect('}')) return true;
  do {
    std::string key;
    if (!String(&key) || !Expect(':')) return false;
    const size_t valueStart = pos_;
    if (!member(key)) {
      pos_ = valueStart;
      if (!Skip()) return false;
    }
  } while (Expect(','));
  return Expect('}');
}
