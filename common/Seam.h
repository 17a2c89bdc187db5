#pragma once

// One process-wide implementation of an operating-system interface (clock,
// shell, kernel modules): the real one unless a test installs its own.

#include <atomic>

template <typename Interface>
class Seam {
 public:
  explicit constexpr Seam(Interface* real) : real_(real), current_(real) {}

  Interface& Get() const { return *current_.load(std::memory_order_acquire); }
  // Installs impl (nullptr puts the real one back) and returns the previous one.
  Interface* Install(Interface* impl) { return current_.exchange(impl != nullptr ? impl : real_); }

 private:
  Interface* const real_;            // the implementation used by default
  std::atomic<Interface*> current_;  // the implementation in force
};
