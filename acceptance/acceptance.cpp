// acceptance.exe [--yes] [--firmware] [ROW...]: tests the module on this PC, row by row, and writes
// one report. Exits with 0 if no row failed, 1 if a row failed, or 2 if it cannot run.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <exception>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

#include "acceptance/kit.h"
#include "hosting/program_start.h"
#include "hosting/text.h"

namespace Vx::Acceptance {

namespace {

using Hosting::Utf8;
using Hosting::Wide;

using enum Account;

// All checks, in the order in which they run.
constexpr Row kRows[] = {
    {"unknown_authority", System,
     "has the module refuse a program whose authority this PC does not trust",
     &UnknownAuthorityIsRefused},
    {"module", User, "asks the module for its version", &ModuleAnswers},
    {"microsoft_abi", User, "runs a host that is built for Microsoft's binary interface",
     &MicrosoftsAbiWorks},
    {"slots", System, "calls each slot of the module, kept from the firmware, and frees it",
     &SlotsWork},
    {"subscription", Administrator, "stores, lists and removes a subscription",
     &SubscriptionIsKept},
    {"trust", System,
     "subscribes programs, of which only a pinned one in a protected place may run",
     &OnlyPinnedProgramsRun},
    {"catalog", System, "has the module verify wldp.dll, which Microsoft signs",
     &CatalogIsVerified},
    {"packages", System, "asks the Windows Runtime and the module for a package of Windows",
     &PackagesAreFound},
    {"alias", System, "starts winget.exe --version through its alias as the user at the console",
     &AliasStartsItsApp},
    {"blocked_open", Administrator, "cancels the opening of a file that another handle holds up",
     &BlockedOpenIsCancelled},
    {"event_log", Administrator,
     "starts a service without its module and reads the reason in the event log",
     &FailureIsInTheEventLog},
    {"service", Administrator,
     "starts the service, ends its process, waits for its restart, stops and removes it*",
     &ServiceLives},
    {"console", Console,
     "has the service start a subscribed program in the session at the console*",
     &ProgramRunsAtTheConsole},
    {"powershell", Administrator, "asks the service through the PowerShell client*",
     &PowerShellIsAnswered},
    {"msi", Administrator, "installs the MSI as a double click does, and removes it", &MsiInstalls},
    {"msi_service", System, "installs the MSI with its service, and removes it*",
     &MsiInstallsService},
    {"msi_upgrade", System, "upgrades the service of the previous MSI, and removes it*",
     &MsiUpgrades},
    {"born_on_date", System,
     "has the module set the born-on date in the firmware: only with --firmware", &BornOnDateIsSet},
};

constexpr const char* kAccounts[] = {"user", "administrator", "SYSTEM", "SYSTEM at the console"};
constexpr std::chrono::minutes kLongestRow{10};

// Cleans up once. If two threads call this, the second waits for the first.
void Clean() noexcept {
  static std::once_flag once;
  std::call_once(once, [] { std::cerr << RemoveFootprint(Then::Nothing); });
}

struct Cleaner {
  Cleaner() = default;
  Cleaner(const Cleaner&) = delete;
  Cleaner& operator=(const Cleaner&) = delete;
  ~Cleaner() { Clean(); }
};

// Windows terminates the process when this returns, or 5 seconds after the window was closed.
// Windows does not call this at log-off, because the program loads user32:
// https://learn.microsoft.com/windows/console/handlerroutine
BOOL WINAPI CleanAtEnd(DWORD) {
  Clean();
  return FALSE;
}

// Runs `action` and returns the row's line for the report.
template <typename Action>
std::string Judge(const Row& row, Action action) {
  try {
    return LineOf(kPass, row.name, action());
  } catch (const NotTried& reason) {
    return LineOf(kNotTried, row.name, reason.what());
  } catch (const std::exception& error) {
    return LineOf(kFail, row.name, error.what());
  }
}

// Runs a row in a process of its account. Renames the file so that no incomplete result is read.
int RunRow(const std::string& name, const std::wstring& file) {
  for (const Row& row : kRows) {
    if (row.name != name) continue;
    Hosting::WriteTextFile(file + L".part", Judge(row, row.run));
    return MoveFileW((file + L".part").c_str(), file.c_str()) != FALSE ? 0 : 1;
  }
  return 2;
}

// Runs a row as its account and returns its line. Throws if it writes none.
std::string RunAsAccount(const Row& row) {
  const bool asUser = row.account == Account::User && !IsWine();
  const std::wstring file =
      (asUser ? UserFolder() : KitFolder()) + L"\\" + Wide(row.name) + L".txt";
  const std::wstring program = KitFile(L"acceptance.exe");
  const std::wstring arguments = L"--row " + Wide(row.name) + L" \"" + file + L"\"";
  const std::wstring line = L"\"" + program + L"\" " + arguments;
  std::string result;
  const auto read = [&] {
    try {
      result = Exists(file) ? Utf8(Hosting::ReadTextFile(file)) : "";
    } catch (const std::exception&) {  // a virus scanner may have the new file open
      return false;
    }
    return !result.empty();
  };
  if (row.account == Account::System && !IsWine()) {
    StartTask(program, arguments);
    Eventually(kLongestRow, read);
    EndTask();
  } else {
    const Platform::UniqueHandle process = asUser ? StartAsUser(line) : Start(line);
    Eventually(kLongestRow, [&] { return HasEnded(process); });
    Eventually(std::chrono::seconds(2), read);
  }
  Require(!result.empty(), "it exited without a result, or ran for more than ten minutes");
  return result;
}

struct Options {
  bool yes = false;
  bool firmware = false;
  std::vector<std::string> rows;  // empty: all
};

bool IsChosen(const Row& row, const Options& options) {
  return options.rows.empty() ||
         std::find(options.rows.begin(), options.rows.end(), row.name) != options.rows.end();
}

bool Agrees(const Options& options) {
  if (SmartAppControlBlocks()) {
    std::cout
        << "WARNING: Smart App Control is on and blocks programs without a known signature, as "
           "those of this kit.\nUse a PC on which it is off.\n\n";
  }
  std::cout << "This program\n";
  for (const Row& row : kRows) {
    if (!IsChosen(row, options)) continue;
    std::cout << "  as " << kAccounts[static_cast<std::size_t>(row.account)] << " " << row.sentence
              << "\n";
  }
  std::cout
      << "* With the start of the module, which would set the born-on date in the maker's "
         "firmware, once in the PC's life.\n  Not tried where that could happen, except with "
         "--firmware.\n\nIt copies itself to "
      << Utf8(KitFolder())
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

std::vector<std::string> RunRows(const Options& options) {
  std::vector<std::string> lines;
  bool trusted = false;
  for (const Row& row : kRows) {
    if (!IsChosen(row, options)) continue;
    if (!trusted && row.run != &UnknownAuthorityIsRefused) {
      TrustAuthority();
      trusted = true;
    }
    std::string line;
    const std::string failure = Judge(row, [&] { return line = RunAsAccount(row); });
    lines.push_back(line.empty() ? failure : line);
    std::cout << lines.back() << std::endl;
  }
  return lines;
}

int Accept(const Options& options) {
  if (!IsElevated()) {
    std::cout << "Right-click acceptance.exe and choose \"Run as administrator\".\n";
    return 2;
  }
  const std::wstring source = std::filesystem::path(Hosting::OwnPath()).parent_path();
  if (!Exists(source + L"\\bin\\vxhost.exe") || source == KitFolder()) {
    std::cout << "Unpack the whole zip into a folder, and start acceptance.exe there.\n";
    return 2;
  }
  const std::string left = RemoveFootprint(Then::GoOn);
  if (!left.empty()) throw std::runtime_error("an earlier run is not cleaned up: " + left);
  if (!Agrees(options)) return 2;
  SetConsoleCtrlHandler(&CleanAtEnd, TRUE);
  const Cleaner cleaner;
  CopyKit(source);
  if (options.firmware) AllowFirmware();
  std::string report = "OrvaneService acceptance\n" + Builds();
  const std::vector<std::string> lines = RunRows(options);
  const auto count = [&](const char* word) {
    return std::count_if(lines.begin(), lines.end(),
                         [&](const std::string& line) { return line.starts_with(word); });
  };
  const auto failed = count(kFail);
  const std::string summary =
      (failed == 0 ? "NOTHING FAILED" : std::to_string(failed) + " FAILED") + ", " +
      std::to_string(count(kPass)) + " passed, " + std::to_string(count(kNotTried)) + " not tried";
  for (const std::string& line : lines) report += line + "\n";
  const std::wstring file = source + L"\\report.txt";
  Hosting::WriteTextFile(file, report + summary + "\n");
  std::cout << summary << "\nThe report is " << Utf8(file) << "\n";
  return failed == 0 ? 0 : 1;
}

int Main(const std::vector<std::wstring>& arguments) {
  if (arguments.size() == 3 && arguments[0] == L"--row") {
    return RunRow(Utf8(arguments[1]), arguments[2]);
  }
  Options options;
  for (const std::wstring& argument : arguments) {
    const std::string text = Utf8(argument);
    if (text == "--yes") {
      options.yes = true;
    } else if (text == "--firmware") {
      options.firmware = true;
    } else if (std::any_of(std::begin(kRows), std::end(kRows),
                           [&](const Row& row) { return row.name == text; })) {
      options.rows.push_back(text);
    } else {
      std::cout << "acceptance.exe [--yes] [--firmware] [ROW...]\n";
      return 2;
    }
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
