// acceptance.exe [--yes] [--firmware] [ROW...]: tests the module on this PC, row by row, and writes
// one report. Exits with 0 if no row failed, 1 if a row failed, or 2 if it cannot run or clean up.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

#include <shlobj.h>

#include "acceptance/kit.h"
#include "hosting/loaded_module.h"
#include "hosting/text.h"
#include "platform/windows_runtime_error.h"
#include "vxhost/common/console.h"

namespace Vx::Acceptance {

namespace {

using Hosting::Utf8;
using Hosting::Wide;
using Hosting::Tool::StopRequest;

using enum Account;

// All checks, in the order in which they run.
constexpr Row kRows[] = {
    {"unknown_authority", System, UnknownAuthorityIsRefused,
     "has the module refuse a program whose authority this PC does not trust"},
    {"module", User, ModuleAnswers, "asks the module for its version"},
    {"microsoft_abi", User, MicrosoftsAbiWorks,
     "runs a host that is built for Microsoft's binary interface"},
    {"slots", System, SlotsWork,
     "calls each slot of the module, kept from the firmware, and frees it"},
    {"subscription", Administrator, SubscriptionIsKept, "stores, lists and removes a subscription"},
    {"trust", System, OnlyPinnedProgramsRun,
     "subscribes programs, of which only a pinned one in a protected place may run"},
    {"catalog", System, CatalogIsVerified, "has the module verify wldp.dll, which Microsoft signs"},
    {"packages", System, PackagesAreFound,
     "asks the Windows Runtime and the module for a package of Windows"},
    {"alias", System, AliasStartsItsApp,
     "starts winget.exe --version through its alias as the user at the console"},
    {"blocked_open", Administrator, BlockedOpenIsCancelled,
     "cancels the opening of a file that another handle holds up"},
    {"event_log", Administrator, FailureIsInTheEventLog,
     "starts a service without its module and reads the reason in the event log"},
    {"service", Administrator, ServiceLives,
     "starts the service, ends its process, waits for its restart, stops and removes it*"},
    {"console", Administrator, ProgramRunsAtTheConsole,
     "has the service start a subscribed program as SYSTEM in the session at the console*"},
    {"powershell", Administrator, PowerShellIsAnswered,
     "asks the service through the PowerShell client*"},
    {"msi", Administrator, MsiInstalls, "installs the MSI as a double click does, and removes it"},
    {"msi_service", System, MsiInstallsService,
     "installs the MSI with its service, and removes it*"},
    {"msi_upgrade", System, MsiUpgrades,
     "upgrades the service of the previous MSI, and removes it*"},
    {"born_on_date", System, BornOnDateIsSet,
     "has the module set the born-on date in the firmware: only with --firmware"},
};

constexpr const char* kAccounts[] = {"user", "administrator", "SYSTEM"};
constexpr std::chrono::minutes kLongestRow{10};

struct Options {
  bool yes = false;
  bool firmware = false;
  std::set<const Row*> rows;  // in the order of kRows
};

// Runs `action` and returns the row's line for the report.
template <typename Action>
std::string Judge(const Row& row, Action action) {
  try {
    return LineOf(kPass, row.name, action());
  } catch (const NotTried& reason) {
    return LineOf(kNotTried, row.name, reason.what());
  } catch (const std::exception& error) {
    return LineOf(kFail, row.name, error.what());
  } catch (const Platform::WindowsRuntimeError& error) {  // not a std::exception
    return LineOf(kFail, row.name, Utf8(error.message()) + " fails: " + CodeOf(error));
  }
}

// Runs a row in a process of its account. Renames the file so that no incomplete result is read.
int RunRow(const Row& row, const std::wstring& file) {
  Hosting::WriteTextFile(file + L".part", "");  // shows that the row has started
  Hosting::WriteTextFile(file + L".part", Judge(row, row.run));
  const auto move = [&] { return MoveFileW((file + L".part").c_str(), file.c_str()) != FALSE; };
  return Eventually(std::chrono::seconds(5), move) ? 0 : 1;  // a virus scanner may have it open
}

// Runs a row as its account and returns its line. Throws if it writes none.
std::string RunAsAccount(const Row& row, StopRequest& stop) {
  const std::wstring folder = row.account == User ? ProgramData(kKitName) : ProgramFiles(kKitName);
  const std::wstring file = folder + L"\\" + Wide(row.name) + L".txt";
  const auto process = StartKit(row.account, L"--row " + Wide(row.name) + L" " + InQuotes(file));
  // Windows may delay a task, and a virus scanner may block the program.
  const auto started = [&] {
    return Exists(file + L".part") || Exists(file) || HasEnded(process) || stop.Wait(0);
  };
  Require(Eventually(std::chrono::minutes(2), started), "Windows does not start it");
  std::string line;
  const auto read = [&] {
    line = ContentOf(file);
    return !line.empty() || stop.Wait(0);
  };
  Eventually(kLongestRow, [&] { return read() || HasEnded(process); });
  Eventually(std::chrono::seconds(2), read);
  Require(!line.empty(), "it exited without a result, or ran for more than ten minutes");
  return line;
}

// Runs the rows, until it is asked to stop, and adds the line of each to `lines`.
void RunRows(const std::set<const Row*>& rows, StopRequest& stop, std::vector<std::string>& lines) {
  for (const Row* row : rows) {
    if (row->run != &UnknownAuthorityIsRefused) TrustAuthority();
    std::string line;
    const std::string failure = Judge(*row, [&] { return line = RunAsAccount(*row, stop); });
    if (stop.Wait(0)) throw std::runtime_error("the kit was ended before its last row");
    UndoRow();
    lines.push_back(line.empty() ? failure : line);
    std::cout << lines.back() << std::endl;
  }
}

bool Agrees(const Options& options) {
  // 1 means that it blocks, 2 that it only evaluates:
  // https://learn.microsoft.com/windows/apps/develop/smart-app-control/test-your-app-with-smart-app-control
  DWORD smartAppControl = 0;
  DWORD size = sizeof smartAppControl;
  RegGetValueW(HKEY_LOCAL_MACHINE, LR"(SYSTEM\CurrentControlSet\Control\CI\Policy)",
               L"VerifiedAndReputablePolicyState", RRF_RT_REG_DWORD, nullptr, &smartAppControl,
               &size);
  if (smartAppControl == 1) {
    std::cout << "WARNING: Smart App Control is on and blocks programs without a known signature, "
                 "like those of this kit.\nUse a PC on which it is off.\n\n";
  }
  // https://learn.microsoft.com/windows/win32/api/taskschd/nf-taskschd-iprincipal-get_logontype
  SYSTEM_POWER_STATUS power{};  // Reserved1 is SystemStatusFlag in a newer <winbase.h>
  if (GetSystemPowerStatus(&power) != FALSE && power.Reserved1 == 1) {
    std::cout
        << "WARNING: Energy saver is on and delays the tasks that run rows as SYSTEM. Turn it "
           "off.\n\n";
  }
  std::cout << "This program\n";
  for (const Row* row : options.rows) {
    std::cout << "  as " << kAccounts[static_cast<std::size_t>(row->account)] << " "
              << row->sentence << "\n";
  }
  std::cout
      << "* With the start of the module, which would set the born-on date in the maker's "
         "firmware, once in the PC's life.\n  Not tried where that could happen, except with "
         "--firmware.\n\nIt copies itself to "
      << Utf8(ProgramFiles(kKitName))
      << " and lets this PC trust a test authority, whose key is not in the kit.\nAt its end, "
         "or after a closed window, a log-off or a power failure at its next start, it removes\n"
         "all that it added, but not what Windows writes to its event logs.\n";
  if (options.firmware) {
    std::cout
        << "WARNING: --firmware lets the module set the born-on date. Nothing can undo that.\n";
  }
  if (options.yes) return true;
  std::cout << "Continue? y/n" << std::endl;
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y";
}

// Runs the rows in a copy of the kit, removes it, and writes the report into `source`.
int Test(const Options& options, const std::wstring& source) {
  const std::wstring file = source + L"\\report.txt";
  // Replaces an older report, and fails early where it could not be written.
  Hosting::WriteTextFile(file, "The kit was ended before it wrote its report.\n");
  std::string report = "OrvaneService acceptance\n";
  std::vector<std::string> lines;
  std::string problems;
  StopRequest stop;
  try {
    std::filesystem::copy(source, ProgramFiles(kKitName), std::filesystem::copy_options::recursive);
    std::filesystem::create_directory(ProgramData(kKitName));
    report += Builds();
    if (options.firmware) Hosting::WriteTextFile(KitFile(kFirmwareNote), "");
    RunRows(options.rows, stop, lines);
  } catch (const std::exception& error) {
    problems = std::string(error.what()) + "\n";
  }
  problems += RemoveFootprint();
  const auto count = [&](const char* word) {
    return std::ranges::count_if(lines,
                                 [&](const std::string& line) { return line.starts_with(word); });
  };
  const auto failed = count(kFail);
  const std::string summary =
      problems + (failed == 0 ? "NOTHING FAILED" : std::to_string(failed) + " FAILED") + ", " +
      std::to_string(count(kPass)) + " passed, " + std::to_string(count(kNotTried)) + " not tried";
  for (const std::string& line : lines) report += line + "\n";
  std::cout << summary << std::endl;
  Hosting::WriteTextFile(file, report + summary + "\n");
  std::cout << "The report is " << Utf8(file) << "\n";
  if (!problems.empty()) return 2;
  return failed == 0 ? 0 : 1;
}

int Accept(const Options& options) {
  if (IsUserAnAdmin() == FALSE) {
    std::cout << "Right-click acceptance.exe and choose \"Run as administrator\".\n";
    return 2;
  }
  const std::wstring source = std::filesystem::path(Hosting::OwnPath()).parent_path();
  const std::wstring copy = KitFile(L"");  // ends with a backslash
  if (!Exists(source + L"\\bin\\vxhost.exe") ||
      _wcsnicmp((source + L"\\").c_str(), copy.c_str(), copy.size()) == 0) {
    std::cout << "Unpack the whole zip into an empty folder, and start acceptance.exe there.\n";
    return 2;
  }
  const Platform::UniqueHandle only(CreateMutexW(nullptr, FALSE, L"Global\\VxAcceptance"));
  if (GetLastError() == ERROR_ALREADY_EXISTS) {
    std::cout << "It is already running, in another window or for another user.\n";
    return 2;
  }
  const std::string left = RemoveFootprint();
  if (!left.empty()) throw std::runtime_error("an earlier run is not cleaned up: " + left);
  if (!Agrees(options)) return 2;
  SetThreadExecutionState(ES_CONTINUOUS | ES_SYSTEM_REQUIRED);  // the rows' times assume no sleep
  return Test(options, source);
}

int Main(const std::vector<std::wstring>& arguments) {
  for (const Row& row : kRows) {
    if (arguments.size() == 3 && arguments[0] == L"--row" && arguments[1] == Wide(row.name)) {
      return RunRow(row, arguments[2]);
    }
  }
  Options options;
  for (const std::wstring& argument : arguments) {
    const auto* row =
        std::ranges::find_if(kRows, [&](const Row& one) { return one.name == Utf8(argument); });
    if (argument == L"--yes") {
      options.yes = true;
    } else if (argument == L"--firmware") {
      options.firmware = true;
    } else if (row != std::end(kRows)) {
      options.rows.insert(row);
    } else {
      std::cout << "acceptance.exe [--yes] [--firmware] [ROW...]\n";
      return 2;
    }
  }
  if (options.rows.empty()) {
    for (const Row& row : kRows) options.rows.insert(&row);
  }
  return Accept(options);
}

// After a double click, the program has its own window, which would close along with the result.
void KeepWindow() {
  DWORD process = 0;
  if (GetConsoleProcessList(&process, 1) != 1) return;
  std::cout << "Press Enter to close this window." << std::endl;
  std::cin.get();
}

}  // namespace

}  // namespace Vx::Acceptance

int wmain(int count, wchar_t** arguments) {
  Vx::Hosting::PrepareProgram();
  const Vx::Hosting::Tool::TerminalScope terminal;
  const std::vector<std::wstring> words(arguments + 1, arguments + count);
  int code = 2;
  try {
    code = Vx::Acceptance::Main(words);
  } catch (const std::exception& error) {
    std::cerr << error.what() << "\n";
  }
  if (words.empty() || words[0] != L"--row") Vx::Acceptance::KeepWindow();
  return code;
}
