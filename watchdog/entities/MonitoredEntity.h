#pragma once

// What the supervision loop starts, checks and stops: the agent's processes
// and its kernel module, driven only through the operations below, whatever
// their kind. The virtual members are the operation slots in their fixed
// order; a kind overrides the ones it implements and inherits the rest.

#include <cstdint>

#include "common/StatusCode.h"

class IpcChannel;

enum class MonitoredEntityStatus : uint32_t {
  NOT_RUNNING = 0,
  RUNNING = 1,
  FAILED = 2,
  // Never set by the entities themselves; kept for callers.
  TIMEOUT = 3,
  // To be restarted on purpose: CheckStatus leaves it alone and the loop
  // restarts everything without counting a failure.
  RESTART = 4,
  UNKNOWN = 5,
};

enum class MonitoredEntityType : uint32_t {
  PROCESS = 0,
  KERNEL_MODULE = 1,
};

// "not running" ... "unknown"; "N/A" from 6 on.
const char* MonitoredEntityStatusToStr(MonitoredEntityStatus status);

class MonitoredEntity {
 public:
  virtual ~MonitoredEntity() = default;
  MonitoredEntity(const MonitoredEntity&) = delete;
  MonitoredEntity& operator=(const MonitoredEntity&) = delete;

  // Base: does nothing, SUCCESS.
  virtual StatusCode Start();
  // Base: does nothing, SUCCESS.
  virtual StatusCode Stop();
  virtual MonitoredEntityStatus GetStatus();
  virtual void SetStatus(MonitoredEntityStatus status);
  // Base: does nothing.
  virtual void CheckStatus();
  // Base: reached only by misuse; logs it and returns null.
  virtual const char* GetName();
  // Base: no channel; logs a warning and returns null, which callers accept.
  virtual IpcChannel* GetIpcChannel();
  // Base: does nothing.
  virtual void CheckResources();

  MonitoredEntityType GetType() const { return type_; }

 protected:
  explicit MonitoredEntity(MonitoredEntityType type) : type_(type) {}

 private:
  MonitoredEntityType type_;                                           // process or kernel module
  MonitoredEntityStatus status_ = MonitoredEntityStatus::NOT_RUNNING;  // current status
};
