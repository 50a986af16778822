#include "bod/born_on_date_manager.h"

#include <algorithm>
#include <array>
#include <bit>
#include <stdexcept>
#include <system_error>

#include <windows.h>

#include "bod/vx_bios_wmi.h"
#include "platform/clock.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/registry.h"
#include "storage/bson_document.h"
#include "storage/cap_data_store.h"
#include "storage/service_document.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

using Shared::WMI::VxBiosWmi;

constexpr char kReadWarrantyFailed[] =
    "VxBiosWmi::ExecuteCommand failure - Command: BIOS WMI Read, Command type: Warranty";
constexpr char kReadFeaturesFailed[] =
    "VxBiosWmi::ExecuteCommand failure - Command: BIOS WMI Read, Command type: BIOS features";
constexpr char kWriteWarrantyFailed[] =
    "VxBiosWmi::ExecuteCommand failure - Command: BIOS WMI Write, Command type: Warranty";
constexpr char kDateInvalid[] = "BornOnDateManager::conditionally_set - date was invalid";

constexpr wchar_t kOobeStats[] = LR"(Software\Microsoft\Windows\CurrentVersion\OOBE\Stats)";
constexpr wchar_t kEndTimeStamp[] = L"EndTimeStamp";

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

constexpr std::uint32_t kBlockSize = 128;
using Block = std::array<std::uint8_t, kBlockSize>;

constexpr std::size_t kFeatureByte = 1;
constexpr std::uint8_t kEightDigitsBit = 0x10;

constexpr int kUnknownFormat = 42;

void ThrowOnFailure(std::int32_t result, const char* message) {
  if (result < 0) throw std::system_error(result, std::generic_category(), message);
}

Block ReadBlock(int commandType, const char* failure) {
  Block block{};
  std::int32_t returnCode = 0;
  VxBiosWmi bios;
  ThrowOnFailure(bios.ExecuteCommand(Shared::WMI::kBiosRead, commandType, 0, nullptr, kBlockSize,
                                     block.data(), &returnCode),
                 failure);
  // A block that was not read is all zeros, which would look like a date that is not set.
  ThrowOnFailure(bios.OutputResult(), failure);
  return block;
}

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

SYSTEMTIME BornOnDate::get_as_system_time() const {
  return std::bit_cast<SYSTEMTIME>(get_as_calendar_time());
}

BornOnDate BornOnDateManager::get_born_on_date() {
  born_on_date.set(TextOfBlock(ReadBlock(Shared::WMI::kWarranty, kReadWarrantyFailed)));
  return born_on_date;
}

BODFormat BornOnDateManager::get_num_bod_digits() {
  const Block features = ReadBlock(Shared::WMI::kBiosFeatures, kReadFeaturesFailed);
  const bool eightDigits = (features[kFeatureByte] & kEightDigitsBit) != 0;
  return eightDigits ? BODFormat::EightDigits : BODFormat::SixDigits;
}

bool BornOnDateManager::born_on_date_has_been_set() {
  return check_bios_first && get_born_on_date().get_format() != BODFormat::Invalid;
}

SYSTEMTIME BornOnDateManager::get_windows_bod() {
  const auto stamp = Platform::CurrentMachine().registry->Read(kOobeStats, kEndTimeStamp);
  return std::bit_cast<SYSTEMTIME>(stamp ? DateOfTimeStamp(stamp->data) : CalendarTime{});
}

SYSTEMTIME BornOnDateManager::determine_bod_source() {
  const auto now =
      std::bit_cast<SYSTEMTIME>(CalendarTimeOf(Platform::CurrentMachine().clock->UtcFileTime()));
  const SYSTEMTIME oobe = get_windows_bod();
  return oobe.wYear == 0 ? now : min_systemtime(now, oobe);
}

SYSTEMTIME BornOnDateManager::min_systemtime(SYSTEMTIME a, SYSTEMTIME b) {
  return std::bit_cast<SYSTEMTIME>(
      EarlierOf(std::bit_cast<CalendarTime>(a), std::bit_cast<CalendarTime>(b)));
}

void BornOnDateManager::determine_date_to_assign(std::vector<std::uint8_t>& buffer,
                                                 BODFormat format) {
  WriteDigits(buffer, format, std::bit_cast<CalendarTime>(determine_bod_source()));
}

void BornOnDateManager::conditionally_set(const std::string& date) {
  if (born_on_date_has_been_set()) return;
  const BODFormat format = get_num_bod_digits();
  if (format == BODFormat::Invalid) throw int{kUnknownFormat};

  std::vector<std::uint8_t> buffer(DigitCount(format));
  if (date.empty()) {
    determine_date_to_assign(buffer, format);
  } else {
    if (!IsAssignable(date, format)) throw std::invalid_argument(kDateInvalid);
    std::copy_n(date.begin(), buffer.size(), buffer.begin());
  }

  std::int32_t returnCode = 0;
  VxBiosWmi bios;
  ThrowOnFailure(bios.ExecuteCommand(Shared::WMI::kBiosWrite, Shared::WMI::kWarranty,
                                     static_cast<std::uint32_t>(buffer.size()), buffer.data(), 0,
                                     nullptr, &returnCode),
                 kWriteWarrantyFailed);
  born_on_date.set({buffer.begin(), buffer.end()});
}

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
