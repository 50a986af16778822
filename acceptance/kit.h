#pragma once

#include <chrono>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/unique_handle.h"

namespace Vx::Platform {
class WindowsRuntimeError;
}

namespace Vx::Acceptance {

enum class Account {
  User,           // the desktop's user, without administrator rights
  Administrator,  // the account of this program
  System,         // SYSTEM, in a scheduled task
};

// One check. `run` returns what it observed. It throws NotTried if this PC does not allow the
// check, and another exception if the check fails. Runs in its own process. UndoRow removes what it
// leaves.
struct Row {
  const char* name;
  Account account;
  std::string (*run)();
  const char* sentence;  // what the check does, for the tester
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
void RemoveService();
// installer_rows.cpp: the MSI.
std::string MsiInstalls();
std::string MsiInstallsService();
std::string MsiUpgrades();
void RemoveMsi();

// pc.cpp: this PC, and programs that run on it.

// The name of the kit's service and task, and of its folders: one in %ProgramFiles%, where only
// administrators can write, and one in %ProgramData%, for the results of rows that run as the user.
inline constexpr wchar_t kKitName[] = L"VxAcceptance";

// Returns whether this is Wine. Wine has one account and trusts any certificate, so rows for other
// accounts run directly there.
bool IsWine();
void NeedsWindows(const char* whatWineLacks);  // throws NotTried under Wine
bool Exists(const std::wstring& path);
// Returns the file's text. Returns an empty string as long as there is none, or while another
// program, such as a virus scanner or the one that renames the file, has it open.
std::string ContentOf(const std::wstring& path);
std::wstring InQuotes(const std::wstring& path);
std::wstring ProgramFiles(const wchar_t* name);  // a path in %ProgramFiles%
std::wstring ProgramData(const wchar_t* name);
std::wstring SystemProgram(const wchar_t* name);  // the quoted path
std::wstring KitFile(const wchar_t* name);        // a path in the kit's folder of programs

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
// The same with a store in a subfolder of the kit's folder, up to the store's option.
std::wstring ToolWithStore(const wchar_t* subfolder);
// The arguments of vxhost that subscribe `program` to a power event. The program then writes how it
// was started to the file `report`.
std::wstring Subscribing(int event, const std::wstring& program, const std::wstring& report);

// Starts the kit's program, as SYSTEM in a scheduled task. Returns null for the task. Throws
// NotTried if no user is at the desktop.
Platform::UniqueHandle StartKit(Account account, const std::wstring& arguments);
bool HasEnded(const Platform::UniqueHandle& process);
// Throws NotTried if programs that this process starts in another session would join its job.
void NeedsOtherSessions();
// Terminate what these have started.
void EndPrograms();
void EndTask();

// Returns whether `condition` becomes true within `limit`.
template <typename Condition>
bool Eventually(std::chrono::milliseconds limit, Condition condition) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return true;
}

// footprint.cpp: what the kit adds to the PC, and what it must not change.

void TrustAuthority();
// Removes what a row added: its programs, the task, the service, the MSI and their data.
void UndoRow();
// Removes everything that any kit adds, which also includes the test authority's certificate and
// the kit's folders. Call this at the start too, because an earlier kit may have been killed.
// Returns why something could not be removed, or an empty string.
std::string RemoveFootprint();

// The tester's consent to a firmware change, which cannot be undone: a file in the kit's folder.
inline constexpr wchar_t kFirmwareNote[] = L"firmware.note";
// Returns whether the firmware has a born-on date, or nothing if it is not the maker's. Throws
// std::exception if the firmware cannot be read.
std::optional<bool> BornOnDateInFirmware();
// Throws NotTried if starting the module could change what belongs to this PC: existing data and
// programs in its Vx folders, the maker's apps or, unless allowed, the born-on date in its
// firmware. Otherwise, UndoRow removes the data that the module keeps there.
enum class Firmware { AtStake, Untouched };
void ClaimFreePc(Firmware firmware = Firmware::AtStake);

// report.cpp

std::string CodeOf(const Platform::WindowsRuntimeError& error);

// A row's line starts with one of these.
inline constexpr char kPass[] = "PASS";
inline constexpr char kFail[] = "FAIL";
inline constexpr char kNotTried[] = "NOT TRIED";
std::string LineOf(const char* word, const char* name, const std::string& reason);
// The exact builds of Windows and of the kit's programs.
std::string Builds();

}  // namespace Vx::Acceptance
