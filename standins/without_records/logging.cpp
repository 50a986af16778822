#include "host/logging.h"

namespace Vx::Tessel::Server::Logging {

// The maker's logging library decides this for each line.
bool IsHeard(LogLevel) noexcept {
  return true;
}

// The maker's logging library has no records, so only the line is written.
void WriteRecord(const VxLogRecord& record, LogLevel level, const wchar_t* text) noexcept {
  const auto log = LogManager::GetLogger()->For(record.client);
  if (level == LogLevel::Info) return log.LogInfo(L"%s", text);
  log.LogWarning(L"%s", text);
}

}  // namespace Vx::Tessel::Server::Logging
