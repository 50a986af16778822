#include "servicehost/pipe_server.h"

#include <cerrno>

#include "support/test.h"

#include <aclapi.h>
#include <sddl.h>

#include "hosting/text.h"
#include "platform/thread.h"
#include "servicehost/open_pipe.h"
#include "servicehost/pipe_io.h"
#include "simulator/virtual_clock.h"
#include "support/memory_shortage.h"
#include "vxhost/service/pipe_client.h"

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" decltype(&CreateNamedPipeW) __imp_CreateNamedPipeW;
extern "C" decltype(&GetNamedPipeClientProcessId) __imp_GetNamedPipeClientProcessId;
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)

namespace Vx::Hosting::ServiceHost {
namespace {

enum class Missing { Nothing, Thread, Memory, MemoryAfterwards };

// Starts real threads. The next start can fail, or memory can run out before or after it.
class ScarceThreads final : public Platform::Threads {
 public:
  Platform::Result<Platform::UniqueHandle> Start(std::function<void()> body) override {
    const Missing what = missing.exchange(Missing::Nothing);
    if (what == Missing::Thread) return Platform::Failure(EAGAIN);
    if (what == Missing::Memory) shortage.emplace(Tests::Shortage::Lasting, 0);
    auto started = Platform::WindowsMachine().threads->Start(std::move(body));
    if (what == Missing::MemoryAfterwards) shortage.emplace(Tests::Shortage::Lasting, 0);
    return started;
  }

  std::atomic<Missing> missing{Missing::Nothing};
  std::optional<Tests::MemoryShortage> shortage;  // ends with the next report
};

// Runs a server that echoes each request, with its ID as the result code, except that ID 1 waits
// until `release` is set, and IDs 2 and 3 have long results.
class PipeTest : public ::testing::Test {
 protected:
  void Serve(std::vector<std::wstring> allowed = {}) {
    PipeOptions options{.path = path, .allowed = std::move(allowed), .clients = 8};
    options.idle = idle;
    options.stuck = 200ms;
    options.retry = 20ms;
    options.quiet = quiet;
    if (identify != nullptr) {
      options.identify = identify;
      options.perAccount = 3;
    }
    server = std::make_unique<PipeServer>(
        options,
        [this](const CommandEnvelope& command, const std::wstring& client) {
          lastClient = client;
          if (command.id == 1) {
            ++held;
            WaitForSingleObject(release.get(), 10'000);
          }
          if (command.id == 2) return CommandResult{2, std::wstring(1'000'000, L'x')};
          if (command.id == 3) return CommandResult{3, std::wstring(kLongestResult / 6, L'\1')};
          if (command.id == 4) {
            // The first exception of a thread allocates memory without checking for failure.
            EXPECT_THROW(throw 0, int);
            threads.shortage.emplace(Tests::Shortage::Lasting, 0);
          }
          return CommandResult{command.id, command.request};
        },
        [this](const wchar_t* level, std::wstring_view message) {
          const std::lock_guard guard(lock);
          threads.shortage.reset();
          reports.append(level).append(L" ").append(message).append(L"\n");
        });
  }

  Tool::PipeClient Client() { return {path, GetCurrentProcessId(), 5s}; }

  Platform::UniqueHandle RawClient() const { return OpenPipe(path); }

  static bool Send(const Platform::UniqueHandle& pipe, const std::string& message) {
    DWORD written = 0;
    return WriteFile(pipe.get(), message.data(), static_cast<DWORD>(message.size()), &written,
                     nullptr) != FALSE;
  }

  // Reads up to `most` bytes. Returns the error.
  static DWORD Read(const Platform::UniqueHandle& pipe, DWORD most = 10) {
    std::string part(most, '\0');
    DWORD size = 0;
    const BOOL read = ReadFile(pipe.get(), part.data(), most, &size, nullptr);
    return read != FALSE ? DWORD{ERROR_SUCCESS} : GetLastError();
  }

  bool IsReported(const std::wstring& line) {
    return Tests::Eventually([&] { return Reports().find(line) != std::wstring::npos; });
  }

  std::wstring Reports() {
    const std::lock_guard guard(lock);
    return reports;
  }

  const std::wstring path = PipePath(L"test-" + std::to_wstring(GetCurrentProcessId()));
  std::chrono::milliseconds idle = 10min;
  std::chrono::milliseconds quiet = 1min;
  std::function<PipeCaller(std::uint32_t)> identify;
  Platform::UniqueHandle release{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
  std::atomic<int> held{0};
  std::mutex lock;
  std::wstring reports;
  std::wstring lastClient;
  ScarceThreads threads;
  Platform::MachineScope scope{[this](Platform::Machine& machine) { machine.threads = &threads; }};
  std::unique_ptr<PipeServer> server;
};

TEST_F(PipeTest, AnswersEachClientWhileTheCommandOfAnotherOneRuns) {
  Serve();
  Platform::Thread slow([this] { EXPECT_EQ(Client().Execute({1, L"slow"}).text, L"slow"); });
  ASSERT_TRUE(Tests::Eventually([this] { return held == 1; }));
  Tool::PipeClient first = Client();
  Tool::PipeClient second = Client();
  for (std::uint32_t id = 10; id < 20; ++id) {
    EXPECT_EQ(first.Execute({id, L"{broken \xE9"}).text, L"{broken \xE9");
    EXPECT_EQ(second.Execute({id, L""}).code, id);
  }
  EXPECT_EQ(second.Execute({5, std::wstring(200'000, L'\xE9')}).text->size(), 200'000U);
  EXPECT_THAT(lastClient, EndsWith(L" servicehost_test.exe"));
  SetEvent(release.get());
  slow.Join();
}

// The host destroys the module's service object only after the server.
TEST_F(PipeTest, ItsEndWaitsForTheCommandThatRuns) {
  Serve();
  const auto pipe = RawClient();
  EXPECT_TRUE(Send(pipe, WriteCommand({1, L"slow"})));
  EXPECT_TRUE(Send(pipe, WriteCommand({1, L"behind it"})));
  ASSERT_TRUE(Tests::Eventually([this] { return held == 1; }));
  std::atomic<bool> ended{false};
  Platform::Thread end([&] {
    server.reset();
    ended = true;
  });
  Sleep(50);
  EXPECT_FALSE(ended);
  SetEvent(release.get());
  end.Join();
  EXPECT_EQ(held, 1);
}

TEST_F(PipeTest, AHostileClientCostsTheOthersNothing) {
  Serve();
  const std::vector<std::function<void()>> attacks = {
      [&] { EXPECT_TRUE(Send(RawClient(), "rubbish")); },
      [&] { Send(RawClient(), std::string(kLongestCommand + 1, '[')); },
      [&] { EXPECT_TRUE(Send(RawClient(), "")); },
      [&] { RawClient(); },
      [&] {
        EXPECT_TRUE(Send(RawClient(), WriteCommand({1, L"gone while it runs"})));
      },
      [&] {
        EXPECT_TRUE(Send(RawClient(), WriteCommand({2, L"gone"})));
      },
  };
  Tool::PipeClient honest = Client();
  for (const auto& attack : attacks) {
    for (int i = 0; i < 2; ++i) attack();
    EXPECT_EQ(honest.Execute({7, L"still"}).text, L"still");
  }
  SetEvent(release.get());
  const auto silent = RawClient();
  const auto deaf = RawClient();
  EXPECT_TRUE(Send(deaf, WriteCommand({2, L""})));  // the result is larger than the pipe
  EXPECT_TRUE(
      IsReported(L"WARNING a client was disconnected, because it did not read its result: "));
  EXPECT_TRUE(
      IsReported(L"WARNING a client was disconnected, because its message is not a command: "));
  std::vector<std::unique_ptr<Tool::PipeClient>> crowd;
  for (int i = 0; i < 5; ++i) {
    crowd.push_back(std::make_unique<Tool::PipeClient>(path, GetCurrentProcessId(), 5s));
    EXPECT_EQ(crowd.back()->Execute({7, L"room"}).text, L"room");
  }
}

TEST_F(PipeTest, AShortageCostsOneClientAndIsReported) {
  static constexpr struct {
    Missing missing;
    std::uint32_t id;
    const wchar_t* line;
  } kCases[] = {
      {Missing::Thread, 7, L"WARNING a client was turned away, because no thread could be started"},
      {Missing::Memory, 7, L"WARNING a client was turned away, because no thread could be started"},
      {Missing::Nothing, 3, L"WARNING a client was disconnected, because its result is too long: "},
      {Missing::Nothing, 4, L"ERROR a connection ended, because memory ran out"},
  };
  quiet = 0ms;
  Serve();
  for (const auto& c : kCases) {
    SCOPED_TRACE(::testing::PrintToString(std::wstring(c.line)));
    reports.clear();
    threads.missing = c.missing;
    EXPECT_THROW(Client().Execute({c.id, L""}), std::runtime_error);
    EXPECT_TRUE(IsReported(c.line));
    EXPECT_EQ(Client().Execute({7, L"still"}).text, L"still");
  }
  // The listener itself needs memory for each client.
  threads.missing = Missing::MemoryAfterwards;
  Tool::PipeClient last = Client();
  EXPECT_EQ(last.Execute({7, L"last"}).text, L"last");
  EXPECT_THROW(Client().Execute({7, L""}), std::runtime_error);
  EXPECT_TRUE(IsReported(L"ERROR a client was turned away, because memory ran out"));
  EXPECT_EQ(last.Execute({7, L"still"}).text, L"still");
  EXPECT_EQ(Client().Execute({7, L"next"}).text, L"next");
}

// The sample clients cannot run here, so this replays how they open the pipe and what they send.
TEST_F(PipeTest, TakesTheMessagesOfTheSampleClients) {
  constexpr DWORD kAccess = 0x12018B;
  const std::wstring request =
      LR"({"powerEventType":7,"eventAction":1,"commandParams":{"path":"C:\\Program Files)"
      LR"(\\VxSample\\tool.exe","arguments":"it's )"
      L"\xE9\"}}";
  Serve();
  for (const wchar_t* client : {L"python", L"powershell"}) {
    SCOPED_TRACE(testing::PrintToString(client));
    const std::string message =
        Tests::ReadText(Tests::BuiltFile(std::wstring(L"pipe_samples\\") + client + L".message"));
    ASSERT_TRUE(Tests::Eventually([&] { return WaitNamedPipeW(path.c_str(), 100) != FALSE; }));
    const auto pipe =
        Platform::AdoptFile(CreateFileW(path.c_str(), kAccess, 0, nullptr, OPEN_EXISTING,
                                        SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
    ASSERT_NE(pipe, nullptr);
    DWORD mode = PIPE_READMODE_MESSAGE;
    EXPECT_TRUE(SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr));
    EXPECT_TRUE(Send(pipe, message));
    char answer[1024];
    DWORD size = 0;
    ASSERT_TRUE(ReadFile(pipe.get(), answer, sizeof answer, &size, nullptr));
    const auto result = ParseResult({answer, size});
    ASSERT_TRUE(result);
    EXPECT_EQ(result->code, 9U);
    EXPECT_EQ(result->text, request);
  }
}

TEST_F(PipeTest, AClientSeesTheErrorsOfTheManual) {
  const auto errorOfOpen = [this] {
    const auto pipe = Platform::AdoptFile(
        CreateFileW(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    return pipe == nullptr ? GetLastError() : DWORD{ERROR_SUCCESS};
  };
  EXPECT_EQ(errorOfOpen(), DWORD{ERROR_FILE_NOT_FOUND});
  Serve();
  std::vector<Platform::UniqueHandle> crowd(8 + 1);
  for (auto& pipe : crowd) pipe = RawClient();
  EXPECT_FALSE(WaitNamedPipeW(path.c_str(), 50));
  EXPECT_EQ(errorOfOpen(), DWORD{ERROR_PIPE_BUSY});
  crowd[3].reset();
  crowd[3] = RawClient();  // its place went to the client that waited
  EXPECT_TRUE(Send(crowd[0], WriteCommand({7, L"longer than its buffer"})));
  EXPECT_EQ(Read(crowd[0]), DWORD{ERROR_MORE_DATA});
  EXPECT_TRUE(Send(crowd[1], "rubbish"));
  server.reset();
  for (const std::size_t ended : {1U, 2U}) {
    EXPECT_THAT(Read(crowd[ended]),
                testing::AnyOf(DWORD{ERROR_BROKEN_PIPE}, DWORD{ERROR_PIPE_NOT_CONNECTED}));
  }
}

TEST_F(PipeTest, NobodyKeepsAdministratorsOrOtherAccountsOut) {
  struct Account {
    const wchar_t* name = L"";
    bool privileged = false;
  };
  constexpr Account ann{L"ann"};
  constexpr Account bob{L"bob"};
  constexpr Account administrator{L"ann", true};
  Account next{};
  identify = [&](std::uint32_t id) {
    PipeCaller caller;
    caller.processId = id;
    caller.account = next.name;
    caller.privileged = next.privileged;
    return caller;
  };
  Serve();  // eight places: four are reserved, and an account may use three
  std::vector<Platform::UniqueHandle> crowd;
  const auto isServed = [&](const Account& account) {
    next = account;
    const auto& pipe = crowd.emplace_back(RawClient());
    const bool served = Send(pipe, WriteCommand({7, L""})) && Read(pipe) == ERROR_MORE_DATA;
    if (!served) crowd.pop_back();
    return served;
  };
  EXPECT_FALSE(isServed({L""}));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(isServed(ann));
  for (int i = 0; i < 2; ++i) EXPECT_FALSE(isServed(ann));
  EXPECT_TRUE(isServed(bob));
  EXPECT_FALSE(isServed(bob));
  for (int i = 0; i < 4; ++i) EXPECT_TRUE(isServed(administrator));
  crowd.erase(crowd.begin());
  EXPECT_TRUE(isServed(administrator));
  EXPECT_EQ(Reports(),
            L"INFO the pipe is open: " + path +
                L"\nWARNING a client was turned away, because Windows does not report its account: "
                L"process " +
                std::to_wstring(GetCurrentProcessId()) +
                L"\nWARNING a client was turned away, because its account holds too many places: "
                L"ann\nWARNING a client was turned away, because the places left are for "
                L"administrators: bob\n");
}

TEST_F(PipeTest, WarnsOfClientsOnceAMinuteForEachKindAndCountsTheOthers) {
  Simulator::VirtualClock clock;
  const Platform::MachineScope timed([&](Platform::Machine& machine) { machine.clock = &clock; });
  Serve();
  const auto sendRubbish = [&] {
    const auto pipe = RawClient();
    EXPECT_TRUE(Send(pipe, "rubbish"));
    EXPECT_NE(Read(pipe), DWORD{ERROR_SUCCESS});
  };
  for (int i = 0; i < 4; ++i) sendRubbish();
  clock.JumpTicks(1min);
  sendRubbish();
  server.reset();
  EXPECT_EQ(std::count(reports.begin(), reports.end(), L'\n'), 3);
  EXPECT_THAT(reports, EndsWith(L" (and 3 more since the last such line)\n"));
}

std::atomic<int> refusedInstances{0};
const decltype(&CreateNamedPipeW) realCreateNamedPipe = __imp_CreateNamedPipeW;

HANDLE WINAPI RefuseInstances(const wchar_t* name, DWORD mode, DWORD type, DWORD most, DWORD out,
                              DWORD in, DWORD wait, SECURITY_ATTRIBUTES* security) {
  // Windows, unlike the emulator, does not create a first instance while others exist.
  const bool own = (mode & FILE_FLAG_FIRST_PIPE_INSTANCE) != 0 &&
                   (WaitNamedPipeW(name, 1) != FALSE || GetLastError() != ERROR_FILE_NOT_FOUND);
  if (own || refusedInstances > 0) {
    --refusedInstances;
    SetLastError(own ? ERROR_ACCESS_DENIED : ERROR_NO_SYSTEM_RESOURCES);
    return INVALID_HANDLE_VALUE;
  }
  return realCreateNamedPipe(name, mode, type, most, out, in, wait, security);
}

TEST_F(PipeTest, AnInstanceThatWindowsRefusesIsTriedAgainAndIsNotTheFirst) {
  Serve();
  Tool::PipeClient client = Client();
  EXPECT_EQ(client.Execute({7, L"x"}).text, L"x");
  const Tests::ImportOverride refuse(__imp_CreateNamedPipeW, &RefuseInstances);
  refusedInstances = 2;
  Tool::PipeClient second = Client();
  EXPECT_TRUE(IsReported(L"ERROR the pipe cannot be opened for a further client: " + path +
                         L" (error 1450)"));
  EXPECT_EQ(second.Execute({7, L"x"}).text, L"x");
  EXPECT_EQ(Client().Execute({7, L"x"}).text, L"x");
  EXPECT_EQ(std::count(reports.begin(), reports.end(), L'\n'), 2);
}

std::atomic<DWORD> clientProcess{0};
BOOL WINAPI ReportClient(HANDLE, ULONG* processId) {
  *processId = clientProcess;
  return TRUE;
}

// A process may pass on its end of the pipe and exit, and another process may then reuse its ID.
TEST_F(PipeTest, AClientStaysTheProcessThatConnectedEvenIfItWaitsAndEnds) {
  std::atomic<int> identified{0};
  identify = [&](std::uint32_t id) {
    PipeCaller caller = CallerOf(id);
    ++identified;
    return caller;
  };
  Serve();
  std::vector<Platform::UniqueHandle> crowd(8);
  for (auto& pipe : crowd) pipe = RawClient();
  ASSERT_TRUE(Tests::Eventually([&] { return identified == 8; }));
  auto started = Tests::StartProcess(Tests::BuiltFile(L"with_data.exe"), CREATE_SUSPENDED);
  clientProcess = started.id;
  const Tests::ImportOverride report(__imp_GetNamedPipeClientProcessId, &ReportClient);
  const auto waiting = RawClient();
  ASSERT_TRUE(Tests::Eventually([&] { return identified == 9; }));
  TerminateProcess(started.process.get(), 0);
  WaitForSingleObject(started.process.get(), 10'000);
  started = {};
  const Platform::UniqueHandle reserved(
      OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, clientProcess));
  EXPECT_NE(reserved, nullptr);
  crowd.front().reset();
  EXPECT_TRUE(Send(waiting, WriteCommand({7, L""})));
  EXPECT_EQ(Read(waiting, 100), DWORD{ERROR_SUCCESS});
  EXPECT_THAT(lastClient, EndsWith(L": with_data.exe"));
}

TEST(PipeCallerTest, CannotLookLikeAnotherOne) {
  const Tests::TempFolder folder;
  const std::wstring program = folder / L"a.exe Administrator] x [y \u202E.exe";
  std::filesystem::copy_file(Tests::BuiltFile(L"with_data.exe"), program);
  const auto started = Tests::StartProcess(L"\"" + program + L"\"", CREATE_SUSPENDED);
  PipeCaller caller = CallerOf(started.id);
  EXPECT_THAT(caller.account, StartsWith(L"S-1-5-"));
  const std::wstring name = CallerName(caller);
  EXPECT_THAT(name, EndsWith(L": a.exe Administrator) x (y \uFFFD.exe"));
  const std::wstring user = name.substr(0, name.find(L':'));
  caller.file = L"root: tool.exe";
  EXPECT_EQ(CallerName(caller), user + L": root; tool.exe");
  caller.file.assign(260, L'x');
  EXPECT_EQ(CallerName(caller).size(), 64U);
  TerminateProcess(started.process.get(), 0);
  EXPECT_EQ(CallerName(CallerOf(0)), L"process 0");
  EXPECT_FALSE(CallerOf(0).privileged);
}

TEST_F(PipeTest, ASilentClientIsDisconnected) {
  idle = 50ms;
  Serve();
  EXPECT_NE(Read(RawClient()), DWORD{ERROR_SUCCESS});
}

TEST_F(PipeTest, ATakenNameIsOneErrorAndARetry) {
  // The emulator ignores the flag for a first instance, but enforces the first instance's limit.
  auto squatter = Platform::AdoptFile(CreateNamedPipeW(path.c_str(), PIPE_ACCESS_INBOUND,
                                                       PIPE_TYPE_MESSAGE, 1, 64, 64, 0, nullptr));
  ASSERT_NE(squatter, nullptr);
  Serve();
  ASSERT_TRUE(Tests::Eventually([this] { return !Reports().empty(); }));
  Sleep(60);  // two retries
  EXPECT_THAT(Reports(), StartsWith(L"ERROR the pipe's name is in use by another process, no "
                                    L"commands until it is free: " +
                                    path));
  EXPECT_EQ(std::count(reports.begin(), reports.end(), L'\n'), 1);
  squatter.reset();
  ASSERT_TRUE(IsReported(L"INFO the pipe is open: " + path));
  EXPECT_EQ(Client().Execute({9, L"x"}).code, 9U);
}

TEST_F(PipeTest, AClientSendsNothingToAnotherProcess) {
  Serve();
  const std::string process = std::to_string(GetCurrentProcessId());
  EXPECT_THAT(
      [&] { Tool::PipeClient(path, GetCurrentProcessId() + 4, 5s); },
      ThrowsMessage<std::runtime_error>(EndsWith(" belongs to process " + process +
                                                 " and not to the service, so nothing was sent")));
}

TEST_F(PipeTest, AClientSendsNothingIntoThePipeOfAnotherAccount) {
  const std::wstring self = CallerOf(GetCurrentProcessId()).account;
  const struct {
    std::wstring owner;
    bool system;   // accepted if the service is installed
    bool account;  // accepted if it runs in a console
  } kCases[] = {
      {L"S-1-5-18", true, true},  {L"S-1-5-32-544", true, true},
      {self, false, true},        {L"S-1-5-21-1-2-3-1001", false, false},
      {L"S-1-1-0", false, false},
  };
  const auto isAccepted = [&](Tool::PipeOwner accepted) {
    try {
      Tool::PipeClient(path, GetCurrentProcessId(), 0s, accepted);
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), EndsWith(" and not to the service's, so nothing was sent"));
      return false;
    }
    return true;
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(testing::PrintToString(c.owner));
    PSECURITY_DESCRIPTOR raw = nullptr;
    ASSERT_TRUE(ConvertStringSecurityDescriptorToSecurityDescriptorW(
        (L"O:" + c.owner + L"D:(A;;GA;;;WD)").c_str(), SDDL_REVISION_1, &raw, nullptr));
    const Platform::UniqueLocalMemory<void> descriptor(raw);
    SECURITY_ATTRIBUTES security{sizeof security, raw, FALSE};
    Platform::UniqueHandle instances[2];
    for (auto& instance : instances) {
      instance = Platform::AdoptFile(CreateNamedPipeW(path.c_str(), PIPE_ACCESS_DUPLEX,
                                                      PIPE_TYPE_MESSAGE, 2, 64, 64, 0, &security));
    }
    EXPECT_EQ(isAccepted(Tool::PipeOwner::System), c.system);
    EXPECT_EQ(isAccepted(Tool::PipeOwner::Account), c.account);
  }
}

TEST_F(PipeTest, ItsAccessListAdmitsOnlyWhoWasNamed) {
  EXPECT_THROW(Serve({L"S-1-1-0)(A;;GA;;;WD"}), WindowsError);
  Serve({L"S-1-5-21-1-2-3-1001"});
  const auto pipe = RawClient();
  PSECURITY_DESCRIPTOR raw = nullptr;
  constexpr SECURITY_INFORMATION kParts = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
  ASSERT_EQ(GetSecurityInfo(pipe.get(), SE_KERNEL_OBJECT, kParts, nullptr, nullptr, nullptr,
                            nullptr, &raw),
            0U);
  const Platform::UniqueLocalMemory<void> descriptor(raw);
  wchar_t* text = nullptr;
  ASSERT_TRUE(ConvertSecurityDescriptorToStringSecurityDescriptorW(raw, SDDL_REVISION_1, kParts,
                                                                   &text, nullptr));
  const Platform::UniqueLocalMemory<wchar_t> owner(text);
  EXPECT_STREQ(text,
               L"O:BAD:P(D;;GA;;;NU)(A;;GA;;;SY)(A;;GA;;;BA)(A;;0x12018b;;;S-1-5-21-1-2-3-1001)");
}

}  // namespace
}  // namespace Vx::Hosting::ServiceHost
