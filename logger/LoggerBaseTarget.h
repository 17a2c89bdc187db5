#pragma once

// A place where finished log lines go. The logger calls every operation under
// its lock; a target reports its own problems only by its results (it must not
// log through the logger it serves). The defaults accept and ignore
// everything but the enabled flag.

#include <cstddef>
#include <cstdint>

class LoggerBaseTarget {
 public:
  LoggerBaseTarget() = default;
  LoggerBaseTarget(const LoggerBaseTarget&) = delete;
  LoggerBaseTarget& operator=(const LoggerBaseTarget&) = delete;

  // One finished line of `length` bytes; false when it was not written.
  virtual bool Write(const char* /*text*/, size_t /*length*/) { return true; }
  // The account id header that opens every log file.
  virtual bool WriteHeader(const char* /*text*/, size_t /*length*/) { return true; }
  virtual ~LoggerBaseTarget() = default;
  // The log generation (0..2) that names the target's output.
  virtual bool SetGeneration(uint32_t /*generation*/) { return true; }
  virtual void Enable() { enabled_ = true; }
  virtual void Disable() { enabled_ = false; }
  virtual bool IsEnabled() { return enabled_; }

 protected:
  uint32_t GetGeneration() const { return generation_; }
  void StoreGeneration(uint32_t generation) { generation_ = generation; }

 private:
  uint32_t generation_ = 0;  // current log generation, stored by targets that use it
  bool enabled_ = false;     // whether lines are taken
};
