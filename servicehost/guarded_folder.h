#pragma once

#include <string>
#include <utility>
#include <vector>

#include "platform/files.h"

namespace Vx::Host {

// Whose right to write is accepted besides SYSTEM's, the administrators' and Windows' installer's.
enum class Writers {
  System,   // no other
  Account,  // that of the account of this process, for a machine on which the service is developed
};

// The accounts (SIDs as text) that may change what has this access list, the owner included, who
// may change the list. `rights` are the access rights that count.
std::vector<std::wstring> OtherWriters(const Platform::AccessList& access, std::uint32_t rights,
                                       Writers accepted);

// Why a folder of the service is not safe: another account may write to it, or it cannot be
// examined. Empty if it is safe.
std::string WhyWritable(const std::wstring& folder, Writers accepted);

// Why a program at the full path `file` is not safe to run as SYSTEM: another account may write to
// it, to its folder or to a folder above it or may delete what lies in the root of its drive, or
// one of them cannot be examined. Empty if it is safe.
std::string WhyUnguarded(const std::wstring& file, Writers accepted);

// The folder that %ProgramData% names for services, whatever the variable of this process says.
// Throws std::runtime_error if Windows does not know it.
std::wstring ProgramDataFolder();

// The folders of the service below `programData`: Vx, which users may only read, and
// Vx\SharedServices with the store and Vx\Logs, which only administrators and SYSTEM may read.
class DataFolders {
 public:
  DataFolders(std::wstring programData, Writers writers)
      : parent(std::move(programData)), accepted(writers) {}

  enum class Existing { Report, Repair };

  // Makes the folders that are missing. An existing folder that other accounts may write to stops
  // the installation or is repaired: it gets the access list of a new one, and if it belongs to
  // another account it is renamed and made again. Returns what was repaired.
  // Throws std::runtime_error, whose text advises the administrator.
  std::vector<std::string> Prepare(Existing existing) const;

  // The full path of Vx\Logs.
  std::wstring Logs() const;

 private:
  std::wstring parent;
  Writers accepted;
};

}  // namespace Vx::Host
