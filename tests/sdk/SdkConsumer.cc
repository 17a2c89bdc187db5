// The README's agent, through the installed headers: every public call the
// SDK offers must compile and link here.
#include "client/SystemExecGW.h"
#include "client/WatchdogClient.h"
#include "common/LogComponent.h"

int main() {
  auto wd = CreateWatchdogClient(WatchdogRole::USER_AGENT);
  if (!wd || wd->Connect() != StatusCode::SUCCESS) return 1;
  wd->StartHeartbeat(2000);
  wd->SetComponentLogLevel(LOGGER_COMPONENT_WATCHDOG, 1);
  uint32_t generation = 0;
  SystemExecGW::IncreaseLogGeneration(&generation);
  return wd->HeartbeatStatus() == StatusCode::SUCCESS ? 0 : 1;
}
