#pragma once

#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/unique_handle.h"

namespace Vx::Acceptance {

enum class Account {
  User,           // the desktop's user, without administrator rights
  Administrator,  // the account of this program
  System,         // SYSTEM, in a scheduled task
  Console,        // SYSTEM at the console: a subscribed program, started by the installed service
};

// One check. `run` returns what it observed. It throws NotTried if this PC does not allow the
// check, and another exception if the check fails. Runs in its own process, from the kit's folder.
struct Row {
  const char* name;
  Account account;
  const char* sentence;  // what the check does, for the tester
  std::string (*run)();
};

struct NotTried : std::runtime_error {
  using runtime_error::runtime_error;
};

// Throws std::runtime_error with the message `otherwise` unless `holds` is true.
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
// windows_rows.cpp: features that Windows has and Wine lacks.
std::string PackagesAreFound();
std::string AliasStartsItsApp();
std::string BlockedOpenIsCancelled();
// service_rows.cpp: the service VxAcceptance, which is installed only while a row runs.
std::string FailureIsInTheEventLog();
std::string ServiceLives();
std::string ProgramRunsAtTheConsole();
std::string PowerShellIsAnswered();
// installer_rows.cpp: the MSI.
std::string MsiInstalls();
std::string MsiInstallsService();
std::string MsiUpgrades();

// pc.cpp: this PC, and programs that run on it.

// Returns whether this is Wine. Wine has one account and trusts any certificate, so rows for other
// accounts run directly there.
bool IsWine();
void NeedsWindows(const char* whatWineLacks);  // throws NotTried under Wine
bool IsElevated();
std::string WindowsBuild();
// Returns whether Smart App Control blocks programs without a known signature.
bool SmartAppControlBlocks();
bool Exists(const std::wstring& path);
std::wstring ProgramFiles(const wchar_t* name);  // a path in %ProgramFiles%
std::wstring ProgramData(const wchar_t* name);
std::wstring SystemProgram(const wchar_t* name);  // the quoted path
// The kit's folder in %ProgramFiles%, where only administrators can write, and a file in it.
std::wstring KitFolder();
std::wstring KitFile(const wchar_t* name);
// The folder in %ProgramData% in which a row that runs as the user leaves its result.
std::wstring UserFolder();

struct Finished {
  unsigned code;
  std::string output;  // standard output and standard error
};
// Runs a program until it exits. Throws std::runtime_error if it cannot be started.
Finished Run(const std::wstring& commandLine);
// Like Run, but also throws unless the program exits with 0 and prints `text`. Returns the output.
std::string Expect(const std::wstring& commandLine, const std::string& text = {});
// The command line of the kit's vxhost.
std::wstring Tool(const std::wstring& arguments);

// Start a program as this account, or as the desktop's user. StartAsUser throws NotTried if there
// is no desktop.
Platform::UniqueHandle Start(const std::wstring& commandLine);
Platform::UniqueHandle StartAsUser(const std::wstring& commandLine);
bool HasEnded(const Platform::UniqueHandle& process);
// Runs a program as SYSTEM in a scheduled task. EndTask stops and deletes the task.
void StartTask(const std::wstring& program, const std::wstring& arguments);
void EndTask();
// Terminates the programs that Run and Start started. Then only this thread can start a program.
void EndPrograms() noexcept;

// Returns whether `condition` becomes true within `limit`.
template <typename Condition>
bool Eventually(std::chrono::milliseconds limit, Condition condition);
void Pause(std::chrono::milliseconds length);

// footprint.cpp: what the kit adds to the PC, and what it must not change.

// Removes everything that any kit adds: the test authority's certificate, the task, the service,
// the MSI, their data, and the kit's folders. Call with GoOn at the start, because an earlier kit
// may have been killed, and with Nothing whenever the kit exits, so that nothing more can be added.
// Returns why something could not be removed, or an empty string.
enum class Then { GoOn, Nothing };
std::string RemoveFootprint(Then then) noexcept;
void CopyKit(const std::wstring& source);
void TrustAuthority();  // undone by RemoveFootprint
// The tester's consent to a firmware change, which cannot be undone.
void AllowFirmware();
bool FirmwareIsAllowed();
// Throws NotTried if starting the module could change what belongs to this PC: existing data and
// programs in its Vx folders or, unless allowed, the born-on date in its firmware.
enum class Firmware { AtStake, Untouched };
void NeedsFreePc(Firmware firmware = Firmware::AtStake);
// Record that the kit is about to create the services' data, or to install this MSI. RemoveData and
// RemoveMsi remove only what has been recorded.
void NoteData();
void NoteMsi(const std::wstring& msi);
void RemoveData();
bool RemoveMsi();  // false if Windows Installer fails
// Runs msiexec without its user interface. Returns its exit code, or 0 if Windows only needs a
// restart. Throws NotTried if another installation is running.
unsigned RunMsi(const std::wstring& arguments);

// report.cpp

// A row's line starts with one of these.
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
