#include "common/SignalSafeFormat.h"

#include <cstdint>

namespace {

// The output buffer, filled up to its last byte, which the terminator keeps.
class Output {
 public:
  Output(char* out, size_t size) : out_(out), size_(size) {}

  void Put(char c) {
    if (length_ + 1 < size_) out_[length_++] = c;
  }
  void PutText(const char* text) {
    while (*text != '\0') Put(*text++);
  }
  void PutNumber(unsigned long long value, unsigned base, size_t width, char pad) {
    char digits[24];
    size_t count = 0;
    do {
      digits[count++] = "0123456789abcdef"[value % base];
      value /= base;
    } while (value != 0);
    for (; width > count; --width) Put(pad);
    while (count > 0) Put(digits[--count]);
  }
  void PutSigned(long long value, size_t width, char pad) {
    // The magnitude in unsigned arithmetic, so that the most negative value has one too.
    unsigned long long magnitude = static_cast<unsigned long long>(value);
    if (value < 0) {
      Put('-');
      magnitude = 0 - magnitude;
      if (width > 0) --width;
    }
    PutNumber(magnitude, 10, width, pad);
  }
  size_t Finish() {
    out_[length_] = '\0';
    return length_;
  }

 private:
  char* const out_;    // the caller's buffer
  const size_t size_;  // its size, terminator included
  size_t length_ = 0;  // characters written so far
};

}  // namespace

size_t SignalSafeFormatV(char* out, size_t size, const char* format, va_list args) {
  Output output(out, size);
  for (const char* p = format; *p != '\0'; ++p) {
    if (*p != '%') {
      output.Put(*p);
      continue;
    }
    ++p;
    const char pad = *p == '0' ? '0' : ' ';
    size_t width = 0;
    for (; *p >= '0' && *p <= '9'; ++p) width = width * 10 + static_cast<size_t>(*p - '0');
    const bool isLong = *p == 'l';
    if (isLong) ++p;
    switch (*p) {
      case 'd':
        output.PutSigned(isLong ? va_arg(args, long) : va_arg(args, int), width, pad);
        break;
      case 's': {
        const char* text = va_arg(args, const char*);
        output.PutText(text != nullptr ? text : "(null)");
        break;
      }
      case 'p': {
        const uintptr_t pointer = reinterpret_cast<uintptr_t>(va_arg(args, void*));
        output.PutText(pointer != 0 ? "0x" : "(nil)");
        if (pointer != 0) output.PutNumber(pointer, 16, 0, pad);
        break;
      }
      case '%':
        output.Put('%');
        break;
      default:
        return output.Finish();
    }
  }
  return output.Finish();
}

size_t SignalSafeFormat(char* out, size_t size, const char* format, ...) {
  va_list args;
  va_start(args, format);
  const size_t length = SignalSafeFormatV(out, size, format, args);
  va_end(args);
  return length;
}
