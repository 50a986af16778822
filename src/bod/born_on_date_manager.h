#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bod/born_on_date.h"
#include "host/logging.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Reads the born-on date in the firmware, and writes it once in a machine's life. Each operation
// that uses the firmware opens its own channel, blocks for as long as WMI takes, and throws
// std::system_error with the HRESULT if a command fails or its whole output cannot be read. Use
// from one thread at a time.
class BornOnDateManager {
 public:
  // If `checkBiosFirst` is false, the manager ignores the date in the firmware and always writes.
  explicit BornOnDateManager(bool checkBiosFirst = true) : check_bios_first(checkBiosFirst) {}

  // Returns the firmware's text, valid or not.
  BornOnDate get_born_on_date();

  // Returns the date format that the firmware uses. Never Invalid.
  BODFormat get_num_bod_digits();

  bool born_on_date_has_been_set();

  // Returns the day on which Windows setup ended, or all zeros if it is not recorded.
  _SYSTEMTIME get_windows_bod();

  // Returns the day on which Windows setup ended or the current time (UTC), whichever is earlier.
  _SYSTEMTIME determine_bod_source();

  static _SYSTEMTIME min_systemtime(_SYSTEMTIME a, _SYSTEMTIME b);

  // Writes determine_bod_source's date. Throws std::invalid_argument if `buffer` is too small.
  void determine_date_to_assign(std::vector<std::uint8_t>& buffer, BODFormat format);

  // Writes `date`, or the result of determine_bod_source if `date` is empty, unless the firmware
  // has a valid date. Throws std::invalid_argument for a date that the firmware cannot store.
  void conditionally_set(const std::string& date);

 private:
  BornOnDate born_on_date;
  bool check_bios_first;
};

// Unless Lumo Tessel is installed, writes the born-on date to the firmware if it has none, and
// copies it to the shared store. Logs to `logger` and catches every std::exception. Returns whether
// the store was written. Blocks for as long as WMI and the store take.
bool SetBornOnDate(const Logging::TraceLogger& logger);

}  // namespace Vx::Tessel::Server::Services::Orvane
