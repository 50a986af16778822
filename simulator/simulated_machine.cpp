#include "simulator/simulated_machine.h"

namespace Vx::Simulator {

SimulatedMachine::SimulatedMachine() {
  clock.SetTickCount(0);
  firmware.SetTimeline(timeline);
}

void SimulatedMachine::Install(Platform::Machine& platform) {
  platform.apiSets = &system;
  platform.appServices = &appServices;
  platform.clock = &clock;
  platform.com = &firmware;
  platform.environment = &users;
  platform.files = &files;
  platform.lockdownLibraries = &system;
  platform.oobe = &system;
  platform.packages = &packages;
  platform.processes = &processes;
  platform.registry = &registry;
  platform.sessions = &users;
  platform.systemTriggers = &system;
  faults.Install(platform);
}

void SimulatedMachine::SleepFor(VirtualClock::Duration length) {
  timeline.Add(L"the machine sleeps for " +
               std::to_wstring(std::chrono::duration_cast<std::chrono::seconds>(length).count()) +
               L" s");
  clock.JumpTicks(length);
}

bool SimulatedMachine::Drain(VirtualClock::Duration limit) {
  return clock.AdvanceUntil([this] { return clock.Workers() == 0; }, limit);
}

}  // namespace Vx::Simulator
