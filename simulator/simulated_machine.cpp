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
  platform.lockdownPolicy = &system;
  platform.oobe = &system;
  platform.packages = &packages;
  platform.processes = &processes;
  platform.registry = &registry;
  platform.sessions = &users;
  platform.systemTriggers = &system;
  faults.Install(platform);
}

void SimulatedMachine::SleepFor(VirtualClock::Duration length) {
  timeline.Add(L"the machine sleeps for " + FormatMoment(length) + L" s");
  clock.JumpTicks(length);
}

void SimulatedMachine::InstallSealed(Platform::Machine& platform) {
  platform.kernelObjects = &kernelObjects;
  platform.trustProvider = &trust;
  Install(platform);
}

void SimulatedMachine::SetStandby(bool entered) {
  // Logged before the signal, because workers act on the signal at once.
  timeline.Add(entered ? L"the machine enters Modern Standby"
                       : L"the machine leaves Modern Standby");
  kernelObjects.SetStandby(entered);
}

void SimulatedMachine::Sign(const std::wstring& path, const SimulatedSignature& signature) {
  if (!files.Holds(path)) files.Add(path, {});
  trust.Sign(path, signature);
  timeline.Add(path + L" is signed with " +
               (signature.key.empty() ? L"a pinned key" : L"the key of " + signature.key));
}

bool SimulatedMachine::Drain(VirtualClock::Duration limit) {
  return clock.AdvanceUntil([this] { return clock.Workers() == 0; }, limit);
}

}  // namespace Vx::Simulator
