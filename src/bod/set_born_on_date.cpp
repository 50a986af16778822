#include "bod/set_born_on_date.h"

#include <stdexcept>
#include <string>
#include <system_error>

#include "bod/born_on_date_manager.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "storage/bson_document.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kTesselFound[] = L"Lumo Tessel was found";
constexpr wchar_t kTesselInstalled[] = L"Tessel is installed. Not setting born on date";
constexpr wchar_t kInitialValue[] =
    L"OrvaneService::SetBornOnDate - initial born on date value: %S";
constexpr wchar_t kFinalValue[] =
    L"OrvaneService::SetBornOnDate - successfully wrote born on date value or value was already "
    L"set: %S";
constexpr wchar_t kStored[] = L"Wrote born on date to shared data store";
constexpr wchar_t kNotStored[] = L"Failed to write born on date to data store";
constexpr wchar_t kInvalidArgument[] =
    L"OrvaneService::SetBornOnDate threw invalid_argument exception %S";
constexpr wchar_t kSystemError[] =
    L"OrvaneService::SetBornOnDate threw system error \"%S\" with status %i";
constexpr wchar_t kException[] = L"OrvaneService::SetBornOnDate threw exception %S";
constexpr char kUnknownException[] = "Unknown exception";

constexpr wchar_t kTesselProgram[] = LR"(%programfiles(x86)%\Vx\Vx Lumo Tessel\VxLumoTessel.exe)";

bool TesselIsInstalled() {
  const Platform::Machine& machine = Platform::CurrentMachine();
  const auto path = machine.environment->Expand(kTesselProgram, Platform::kShortPath);
  return path && machine.files->Attributes(*path);
}

bool SetAndStore(const Logging::TraceLogger& logger) {
  BornOnDateManager manager(true);
  if (TesselIsInstalled()) {
    logger.LogInfo(kTesselFound);
    logger.LogInfo(kTesselInstalled);
    return false;
  }
  // Opened first: if this fails, the firmware is not written, because its date could not be stored.
  Storage::CapDataStore store;
  logger.LogInfo(kInitialValue, manager.get_born_on_date().get().c_str());
  manager.conditionally_set("");
  const std::string finalDate = manager.get_born_on_date().get();
  logger.LogInfo(kFinalValue, finalDate.c_str());
  const bool stored =
      store.mergeMember(kServiceDocument, kBornOnDate, Storage::BsonElement::Text(finalDate));
  if (stored) {
    logger.LogInfo(kStored);
  } else {
    logger.LogWarning(kNotStored);
  }
  return stored;
}

// Must not allocate, because memory may have run out.
const char* TextOf(const std::exception& error) {
  const char* const text = error.what();
  return *text == '\0' ? kUnknownException : text;
}

}  // namespace

bool SetBornOnDate(const Logging::TraceLogger& logger) {
  try {
    return SetAndStore(logger);
  } catch (const std::invalid_argument& error) {
    logger.LogError(kInvalidArgument, TextOf(error));
  } catch (const std::system_error& error) {
    logger.LogError(kSystemError, TextOf(error), error.code().value());
  } catch (const std::exception& error) {
    logger.LogError(kException, TextOf(error));
  }
  return false;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
