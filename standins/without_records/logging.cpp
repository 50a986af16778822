#include "host/logging.h"

namespace Vx::Tessel::Server::Logging {

// The maker's logging library knows no records, so their lines are all there is.
void WriteRecord(const VxLogRecord& record, const wchar_t* text) noexcept {
  LogManager::GetLogger()->For(record.client).LogInfo(L"%s", text);
}

}  // namespace Vx::Tessel::Server::Logging
