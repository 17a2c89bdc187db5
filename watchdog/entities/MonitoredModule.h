#pragma once

// The agent's kernel module as a monitored entity: loaded by the watchdog
// itself from the module file's image, verified through the kernel's list of
// loaded modules and unloaded with retries. All kernel access goes through
// KernelModuleApi.

#include <array>
#include <memory>

#include "watchdog/entities/MonitoredEntity.h"

class MonitoredModule final : public MonitoredEntity {
 public:
  // Null (logged) when any of the three names is null; args may be null.
  friend std::unique_ptr<MonitoredModule> CreateMonitoredModule(const char* dirPath,
                                                                const char* binaryName,
                                                                const char* moduleName,
                                                                const char* args);
  // Logs its destruction; does not unload the module.
  ~MonitoredModule() override;

  // Reads the image, loads it, waits a second and verifies: SUCCESS only when
  // the module is then listed.
  StatusCode Start() override;
  // Unloads with at most 11 calls and a second between them; stops early once
  // the module is no longer listed.
  StatusCode Stop() override;
  // RUNNING when listed, FAILED when not, UNKNOWN when the list can't be read
  // in ProcModulesRetries attempts. Leaves RESTART alone.
  void CheckStatus() override;
  const char* GetName() override;

  // Whether any line of the module list contains the module name (a plain
  // substring test). A missing list reads as empty: not loaded. FAILURE, with
  // loaded untouched, only when no reader can be made for it.
  StatusCode IsModuleLoaded(bool* loaded);

 private:
  MonitoredModule() : MonitoredEntity(MonitoredEntityType::KERNEL_MODULE) {}
  void MonitoredModuleCtor(const char* dirPath, const char* binaryName, const char* moduleName,
                           const char* args);

  std::array<char, 256> dirPath_{};    // directory of the module file
  std::array<char, 64> binaryName_{};  // module file name
  std::array<char, 64> moduleName_{};  // name the kernel lists it under; the entity's name
  std::array<char, 1024> args_{};      // parameter string for init_module, empty for none
};

std::unique_ptr<MonitoredModule> CreateMonitoredModule(const char* dirPath, const char* binaryName,
                                                       const char* moduleName, const char* args);
