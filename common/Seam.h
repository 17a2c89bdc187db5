#pragma once

// One process-wide implementation of an operating-system interface (clock,
// shell, /proc, kernel modules, the log sink): the real one unless a test
// installs its own. Every interface has exactly one seam, found by its type
// with SeamOf<Interface>() (declared beside the interface), so that a test
// can swap its whole fake system with one ScopedSeams.

#include <atomic>
#include <tuple>

template <typename Interface>
class Seam {
 public:
  explicit constexpr Seam(Interface* real) : real_(real), current_(real) {}

  Interface& Get() const { return *current_.load(std::memory_order_acquire); }
  // Installs impl (nullptr puts the real one back) and returns the previous one.
  Interface* Install(Interface* impl) { return current_.exchange(impl != nullptr ? impl : real_); }
  bool IsReal(const Interface* impl) const { return impl == real_; }

 private:
  Interface* const real_;            // the implementation used by default
  std::atomic<Interface*> current_;  // the implementation in force
};

// The seam of an interface; specialised next to its real implementation.
template <typename Interface>
Seam<Interface>& SeamOf();

// Installs one implementation per interface for its own lifetime (a null one
// leaves that seam alone) and puts the previous ones back when it goes:
//   ScopedSeams<Clock, Shell> fakes(&clock, &shell);
template <typename... Interfaces>
class ScopedSeams {
 public:
  explicit ScopedSeams(Interfaces*... impls) : previous_(Swap(impls)...) {}
  ~ScopedSeams() {
    std::apply([](auto... previous) { (Restore(previous), ...); }, previous_);
  }
  ScopedSeams(const ScopedSeams&) = delete;
  ScopedSeams& operator=(const ScopedSeams&) = delete;

 private:
  // What was installed before, or null when impl is null.
  template <typename Interface>
  static Interface* Swap(Interface* impl) {
    return impl != nullptr ? SeamOf<Interface>().Install(impl) : nullptr;
  }
  template <typename Interface>
  static void Restore(Interface* previous) {
    if (previous != nullptr) SeamOf<Interface>().Install(previous);
  }

  std::tuple<Interfaces*...> previous_;  // by interface, null: left alone
};
