// The allocation forms the product uses, without the exception runtime: the
// C++ library's nothrow new is a try/catch around the throwing one, which
// alone pulls the unwinder, the personality routine and the demangler into
// the binary. These return null on failure like the originals; the library's
// delete frees them, since its allocations come from malloc too.
// Sanitized builds leave this file out: the sanitizer replaces the library's
// forms to track new and delete pairs.

#include <cstdlib>
#include <new>

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size != 0 ? size : 1);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return std::malloc(size != 0 ? size : 1);
}
