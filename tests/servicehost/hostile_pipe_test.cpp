

#include "servicehost/open_pipe.h"
#include "servicehost/pipe_io.h"
#include "servicehost/pipe_server.h"
#include "support/test.h"
#include "vxhost/service/pipe_client.h"

namespace Vx::Hosting::ServiceHost {
namespace {

using Tests::Setting;

std::wstring TestPath() {
  return PipePath(L"hostile-" + std::to_wstring(GetCurrentProcessId()));
}

// Returns a message that could confuse a server: tiny, huge, of about the pipe's read size or a
// multiple of it, or with bytes altered, removed, duplicated or inserted at random.
std::string HostileMessage(std::mt19937& random) {
  const auto below = [&random](std::size_t limit) { return random() % limit; };
  static constexpr std::size_t kSizes[] = {1, 16383, 16384, 16385, 65535, 65536, 65537, 200000};
  std::wstring request(below(3) == 0 ? kSizes[below(std::size(kSizes))] : below(40), L'\xE9');
  for (std::size_t i = below(4); i > 0 && !request.empty(); --i) {
    request[below(request.size())] = static_cast<wchar_t>(random());
  }
  std::string message = WriteCommand({static_cast<std::uint32_t>(random()), request});
  for (std::size_t i = below(4); i > 0; --i) {
    const std::size_t at = below(message.size());
    const std::function<void()> changes[] = {
        [&] { message[at] = static_cast<char>(random()); },
        [&] { message.erase(at, 1 + below(8)); },
        [&] { message.insert(at, message.substr(below(message.size()), 8)); },
        [&] { message.insert(at, 1 + below(3), "{}\",:\\ 0"[below(8)]); },
        [&] { message.resize(at); },
    };
    changes[below(std::size(changes))]();
    if (message.empty()) return "{";
  }
  return message;
}

// The server echoes each request, so each message must either be a command, whose exact result is
// known, or close its own connection.
TEST(HostilePipeTest, AMessageIsACommandOrTheEndOfItsConnection) {
  const std::uint32_t seed = Setting("VX_SEED", 17);
  std::mt19937 random(seed);
  PipeServer server(
      {.path = TestPath(), .allowed = {}},
      [](const CommandEnvelope& command, const std::wstring&) {
        return CommandResult{command.id, command.request};
      },
      [](const wchar_t*, std::wstring_view) {});
  Tool::PipeClient honest(TestPath(), GetCurrentProcessId(), 10s);
  std::size_t accepted = 0;
  std::size_t refused = 0;
  Platform::UniqueHandle pipe;
  for (std::size_t round = 0; round < Setting("VX_STEPS", 600) / 2; ++round) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
    if (pipe == nullptr) pipe = OpenPipe(TestPath(), FILE_FLAG_OVERLAPPED);
    const std::string message = HostileMessage(random);
    const auto command = ParseCommand(message);
    PipeMessages messages(pipe.get(), nullptr);
    ASSERT_EQ(messages.Write(message, 10s), PipeOutcome::Done);
    std::string result;
    const PipeOutcome outcome = messages.Read(result, kLongestResult, 10s);
    if (command) {
      ++accepted;
      ASSERT_EQ(outcome, PipeOutcome::Done);
      ASSERT_EQ(result, WriteResult({command->id, command->request}));
    } else {
      ++refused;
      ASSERT_EQ(outcome, PipeOutcome::Ended);
      pipe.reset();
    }
    if (round % 16 == 0) {
      ASSERT_EQ(honest.Execute({7, L"still"}).text, L"still");
    }
  }
  EXPECT_GT(accepted, 0U);
  EXPECT_GT(refused, 0U);
}

}  // namespace
}  // namespace Vx::Hosting::ServiceHost
