#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bod/born_on_date.h"

namespace Vx::Tessel::Server::Services::Orvane {

// Reads and, once in a machine's life, writes the born-on date that the firmware keeps. Each
// operation that talks to the firmware opens its own channel and throws std::system_error with the
// HRESULT when a command fails. One thread at a time; blocks for as long as WMI takes.
class BornOnDateManager {
 public:
  BornOnDateManager() : BornOnDateManager(true) {}

  // Without `checkBiosFirst` the manager takes no date in the firmware for one and always writes.
  explicit BornOnDateManager(bool checkBiosFirst) : check_bios_first(checkBiosFirst) {}

  // What the firmware holds, valid or not.
  BornOnDate get_born_on_date();

  // How many digits the firmware holds; never Invalid.
  BODFormat get_num_bod_digits();

  bool born_on_date_has_been_set();

  // The day on which Windows set-up ended, other fields zero; all zero when that is not recorded.
  _SYSTEMTIME get_windows_bod();

  // The day on which set-up ended or now (UTC), whichever is earlier.
  _SYSTEMTIME determine_bod_source();

  static _SYSTEMTIME min_systemtime(_SYSTEMTIME a, _SYSTEMTIME b);

  // Writes the digits to assign to the front of `buffer`. Throws std::invalid_argument when it is
  // too small.
  void determine_date_to_assign(std::vector<std::uint8_t>& buffer, BODFormat format);

  // Writes `date`, or for an empty one the date of determine_bod_source, unless the firmware holds
  // a valid date. Throws std::invalid_argument for a date that the firmware cannot take.
  void conditionally_set(const std::string& date);

 private:
  BornOnDate born_on_date;
  bool check_bios_first;
};

}  // namespace Vx::Tessel::Server::Services::Orvane
