#include "vxhost/service/running_service.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

#include "hosting/text.h"
#include "json/json_object.h"
#include "json/json_text.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/windows_runtime_error.h"
#include "servicehost/guarded_folder.h"
#include "vxhost/service/log_follower.h"
#include "vxhost/service/pipe_client.h"
#include "vxhost/service/service_manager.h"

namespace Vx::Hosting::Tool {

namespace {

constexpr wchar_t kEarlier[] = L"vxhost";  // names the log files of an earlier version

LogLine LineOf(const Json::JsonObject& record) {
  return {record.GetNamedString(L"level"), record.GetNamedString(L"provider"),
          record.GetNamedString(L"caller"), record.GetNamedString(L"message"),
          Json::TruncateToUint32(record.GetNamedNumber(L"process"))};
}

}  // namespace

void RefuseForService(const ModuleOptions& options) {
  if (options.dll.empty() && !options.privateStore && !options.simulate && options.store.empty()) {
    return;
  }
  throw std::runtime_error("a running service has its own module and store");
}

CommandResult ExecuteInService(const std::string& name, std::uint32_t process, std::uint32_t id,
                               const std::wstring& request) {
  return ConnectToService(Wide(name), process).Execute({id, request});
}

void FollowService(const std::string& name, int seconds,
                   const std::function<void(const LogLine&, const std::wstring& time)>& receive) {
  const std::uint32_t process = ProcessOfService(Wide(name));
  LogFollower follower(
      ServiceHost::DataFolders(ServiceHost::ProgramDataFolder(), ServiceHost::Writers::System)
          .Logs(),
      {kEarlier, Wide(name)}, LogFollower::From::Now);
  std::fprintf(stderr, "Listening to process %lu%s\n", static_cast<unsigned long>(process),
               seconds == 0 ? "; Ctrl+C ends it" : "");
  Platform::Clock& clock = *Platform::CurrentMachine().clock;
  const std::uint64_t end = clock.TickCount() + static_cast<std::uint64_t>(seconds) * 1000;
  while (seconds == 0 || clock.TickCount() < end) {
    const auto text = follower.Next();
    if (!text) {
      clock.Sleep(LogFollower::kPoll);
      continue;
    }
    try {
      const auto record = Json::JsonObject::Parse(Wide(*text));
      LogLine line = LineOf(record);
      // Another service may log to the same folder.
      if (line.process == process) receive(line, record.GetNamedString(L"time"));
    } catch (const Platform::WindowsRuntimeError&) {
      continue;  // an incomplete line from a killed process
    }
  }
}

}  // namespace Vx::Hosting::Tool
