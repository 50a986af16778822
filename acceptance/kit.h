#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/unique_handle.h"

namespace Vx::Acceptance {

enum class Account {
  User,           // the user of the desktop, without an administrator's rights
  Administrator,  // the account of this program
  System,         // a scheduled task
  Console,        // SYSTEM at the console: a subscribed program that the installed service starts
};

// One check. `run` returns what it saw, throws NotTried if this PC cannot show it, and another
// exception if it fails. It runs in a process of its own, from the kit's folder.
struct Row {
  const char* name;
  Account account;
  const char* sentence;  // what it does, for the tester
  std::string (*run)();
};

struct NotTried : std::runtime_error {
  using runtime_error::runtime_error;
};

// Throws if a check of a row does not hold.
void Require(bool holds, const std::string& otherwise);

// module_rows.cpp: the module, with its data in the kit's folder.
std::string UnknownAuthorityIsRefused();
std::string ModuleAnswers();
std::string MicrosoftsAbiWorks();
std::string SlotsWork();
std::string SubscriptionIsKept();
std::string OnlyPinnedProgramsRun();
std::string CatalogIsVerified();
std::string BornOnDateIsSet();
// windows_rows.cpp: what Windows has and Wine lacks.
std::string PackagesAreFound();
std::string AliasStartsItsApp();
std::string BlockedOpenIsCancelled();
// service_rows.cpp: the service VxAcceptance, which exists while a row runs.
std::string FailureIsInTheEventLog();
std::string ServiceLives();
std::string ProgramRunsAtTheConsole();
std::string PowerShellIsAnswered();
// installer_rows.cpp: the MSI.
std::string MsiInstalls();
std::string MsiInstallsService();
std::string MsiUpgrades();

// pc.cpp: this PC, and programs that run on it.

// Returns whether this is Wine. It knows one account and trusts any certificate, so rows for other
// accounts run directly there.
bool IsWine();
void NeedsWindows(const char* whatWineLacks);  // throws NotTried under Wine
bool IsElevated();
std::string WindowsBuild();
// Returns whether Smart App Control blocks programs without a known signature.
bool SmartAppControlBlocks();
bool Exists(const std::wstring& path);
std::wstring ProgramFiles(const wchar_t* name);  // the path of a file or folder there
std::wstring ProgramData(const wchar_t* name);
std::wstring SystemProgram(const wchar_t* name);  // quoted
// The kit's folder below %ProgramFiles%, to which only administrators write, and a file in it.
std::wstring KitFolder();
std::wstring KitFile(const wchar_t* name);
// The folder below %ProgramData% in which a row of the user leaves its result.
std::wstring UserFolder();

struct Finished {
  unsigned code;
  std::string output;  // standard output and errors
};
// Runs a program to its end. Throws std::runtime_error.
Finished Run(const std::wstring& commandLine);
// As above. Throws unless the program exits with 0 and prints `text`.
std::string Expect(const std::wstring& commandLine, const std::string& text = {});
// The command line of the kit's vxhost.
std::wstring Tool(const std::wstring& arguments);

// Starts a program as this account, or as the user of the desktop. Throws NotTried if there is
// none.
Platform::UniqueHandle Start(const std::wstring& commandLine);
Platform::UniqueHandle StartAsUser(const std::wstring& commandLine);
bool HasEnded(const Platform::UniqueHandle& process);
// Has a scheduled task run a program as SYSTEM. EndTask ends and deletes it.
void StartTask(const std::wstring& program, const std::wstring& arguments);
void EndTask();
// Ends all programs that Run and Start began. Afterwards, only this thread can start a program.
void EndPrograms() noexcept;

// Returns whether `condition` becomes true within `limit`.
template <typename Condition>
bool Eventually(std::chrono::milliseconds limit, Condition condition);
void Pause(std::chrono::milliseconds length);

// footprint.cpp: what the kit adds to the PC, and what it must leave alone.

// Removes all that any kit adds: the test authority's certificate, its task, its service, its MSI,
// their data, and its folders. Call it at the start, because an earlier kit may have been killed,
// and whenever the kit exits, with Nothing, so that nothing more can be added. Returns why
// something is left, or an empty string.
enum class Then { GoOn, Nothing };
std::string RemoveFootprint(Then then) noexcept;
void CopyKit(const std::wstring& source);
void TrustAuthority();  // until RemoveFootprint
// The tester's request for what cannot be undone.
void AllowFirmware();
bool FirmwareIsAllowed();
// Throws NotTried if starting the module would change what belongs to this PC: its services' data
// and programs or, unless that is allowed, the born-on date in its firmware.
enum class Firmware { AtStake, Untouched };
void NeedsFreePc(Firmware firmware = Firmware::AtStake);
// Record that the services' data, which do not exist yet, and the product of this MSI will be the
// kit's. RemoveData and RemoveMsi remove only what is recorded.
void NoteData();
void NoteMsi(const std::wstring& msi);
void RemoveData();
bool RemoveMsi();  // false if Windows Installer fails
// Runs msiexec without its user interface. Returns its exit code, 0 even if Windows has to be
// restarted. Throws NotTried if another installation is running.
unsigned RunMsi(const std::wstring& arguments);

// report.cpp

// A row's line begins with one of these.
inline constexpr char kPass[] = "PASS";
inline constexpr char kFail[] = "FAIL";
inline constexpr char kNotTried[] = "NOT TRIED";
std::string LineOf(const char* word, const char* name, const std::string& reason);
// The exact builds of Windows and of the kit's programs.
std::string Builds();

template <typename Condition>
bool Eventually(std::chrono::milliseconds limit, Condition condition) {
  constexpr std::chrono::milliseconds kStep{50};
  for (; !condition(); limit -= kStep) {
    if (limit <= kStep) return false;
    Pause(kStep);
  }
  return true;
}

}  // namespace Vx::Acceptance
