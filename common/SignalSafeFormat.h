#pragma once

// A bounded printf for signal handlers: no locale, no allocation, no lock, so
// it may run while the interrupted code holds the C library's. It knows %s,
// %d, %ld, %p (as the C library prints it: "(nil)" or 0x and lower-case hex
// digits), %% and a width with an optional 0 flag (%02d); it stops at any
// other conversion.

#include <cstdarg>
#include <cstddef>

// Writes at most size - 1 characters and the terminator (REQUIRES: size > 0);
// returns the number of characters written.
size_t SignalSafeFormat(char* out, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
size_t SignalSafeFormatV(char* out, size_t size, const char* format, va_list args)
    __attribute__((format(printf, 3, 0)));
