#include "bod/born_on_date_manager.h"

#include <algorithm>
#include <array>
#include <bit>
#include <stdexcept>
#include <system_error>

#include <windows.h>

#include "bod/vx_bios_wmi.h"
#include "platform/clock.h"
#include "platform/machine.h"
#include "platform/registry.h"

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

constexpr std::uint32_t kBlockSize = 128;
using Block = std::array<std::uint8_t, kBlockSize>;

constexpr std::size_t kFeatureByte = 1;
constexpr std::uint8_t kEightDigitsBit = 0x10;

constexpr int kUnknownFormat = 42;

static_assert(sizeof(SYSTEMTIME) == sizeof(CalendarTime));

CalendarTime FromSystemTime(const SYSTEMTIME& time) {
  return std::bit_cast<CalendarTime>(time);
}

SYSTEMTIME ToSystemTime(const CalendarTime& time) {
  return std::bit_cast<SYSTEMTIME>(time);
}

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

}  // namespace

SYSTEMTIME BornOnDate::get_as_system_time() const {
  return ToSystemTime(get_as_calendar_time());
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
  return ToSystemTime(stamp ? DateOfTimeStamp(stamp->data) : CalendarTime{});
}

SYSTEMTIME BornOnDateManager::determine_bod_source() {
  const SYSTEMTIME now =
      ToSystemTime(CalendarTimeOf(Platform::CurrentMachine().clock->UtcFileTime()));
  const SYSTEMTIME oobe = get_windows_bod();
  return oobe.wYear == 0 ? now : min_systemtime(now, oobe);
}

SYSTEMTIME BornOnDateManager::min_systemtime(SYSTEMTIME a, SYSTEMTIME b) {
  return ToSystemTime(EarlierOf(FromSystemTime(a), FromSystemTime(b)));
}

void BornOnDateManager::determine_date_to_assign(std::vector<std::uint8_t>& buffer,
                                                 BODFormat format) {
  WriteDigits(buffer, format, FromSystemTime(determine_bod_source()));
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

}  // namespace Vx::Tessel::Server::Services::Orvane
