#pragma once

// A constant table of names kept as one run of characters and their offsets.
// A table of pointers would be relocated at load in a position-independent
// program, which makes each of its pages a private copy in every process;
// this one holds no pointer and stays shared with the file.

#include <cstddef>
#include <cstdint>

template <size_t Count, size_t Size>
struct PackedNames {
  char text[Size];        // the names, each ended by its '\0'
  uint16_t start[Count];  // where each name begins in text
  size_t count;           // names found, for the caller's static_assert
  constexpr const char* operator[](size_t index) const { return text + start[index]; }
};

// names is the literal "first\0" "second\0" ...: every name ends in '\0'.
template <size_t Count, size_t Size>
constexpr PackedNames<Count, Size> PackNames(const char (&names)[Size]) {
  static_assert(Size < 65536, "offsets are 16-bit");
  PackedNames<Count, Size> table{};
  size_t begin = 0;
  for (size_t i = 0; i + 1 < Size; ++i) {
    table.text[i] = names[i];
    if (names[i] != '\0') continue;
    if (table.count < Count) table.start[table.count] = static_cast<uint16_t>(begin);
    ++table.count;
    begin = i + 1;
  }
  return table;
}
