// Another process that uses the shared store.
//
//   store_worker FILE  holds the store's mutex, creates FILE, and ends once FILE is gone
//   store_worker NOTES PROCESS  increments members until the notes end the storm, or its own key if
//                               PROCESS is kOtherService
//   store_worker KEY VALUE STEP  stores VALUE under KEY, and ends its process before that step of
//                                the write, counted from 1
//   store_worker KEY VALUE STEP LATER  ends only the writing thread, then stores 1 under LATER
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include "platform/machine.h"
#include "platform/unique_handle.h"
#include "platform/windows_runtime_error.h"
#include "simulator/virtual_clock.h"
#include "storage/cap_data_store.h"
#include "storage/store_file.h"
#include "storage/store_storm.h"
#include "support/faulty_files.h"

namespace Vx::Tests {
namespace {

using Tessel::Server::Storage::BsonElement;
using Tessel::Server::Storage::CapDataStore;

// An exception from the store ends the process, which the test detects.
void CountUp(const SharedNotes& notes, std::size_t self, std::size_t writer) {
  StormProcess& process = notes->processes.at(self);
  StormWriter& own = process.writers.at(writer);
  for (bool last = false; !last;) {
    last = notes->end;
    const std::int32_t value = ++own.begun;
    CapDataStore store;
    if (store.mergeMember(kStormDocument, MemberOf(self, writer), BsonElement::Int32(value))) {
      own.acknowledged = value;
    } else {
      ++process.refused;
    }
  }
}

// Another service, which writes in place and shares only the file format's code with the store.
void CountUpInPlace(const SharedNotes& notes) {
  StormWriter& own = notes->processes.at(kOtherService).writers[0];
  const Platform::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, kStoreMutex));
  const std::wstring path =
      std::wstring(_wgetenv(L"ProgramData")) + L"\\Vx\\SharedServices\\shared_store.dat";
  for (bool last = false; !last;) {
    last = notes->end;
    if (WaitForSingleObject(mutex.get(), INFINITE) == WAIT_ABANDONED) ++notes->abandoned;
    const Bytes file = ReadBytes(path);
    auto document = HeldBy(file).value();
    const auto found = document.Find(kOtherKey);
    if ((found ? found->AsInt32() : 0) != own.begun.load()) {
      throw std::runtime_error("the last value is lost");
    }
    document.Set(kOtherKey, BsonElement::Int32(++own.begun));
    WriteBytes(path, StoreFile(document.Encoded(), IdOf(file)));
    ReleaseMutex(mutex.get());
    own.acknowledged = own.begun.load();
  }
}

void Storm(const std::wstring& name, std::size_t self) {
  const SharedNotes notes(name);
  if (self == kOtherService) return CountUpInPlace(notes);
  std::vector<std::thread> writers;
  writers.reserve(kWritersOfAProcess);
  for (std::size_t i = 0; i < kWritersOfAProcess; ++i) {
    writers.emplace_back([&, i] { CountUp(notes, self, i); });
  }
  for (std::thread& writer : writers) writer.join();
}

enum class Ends { Process, Thread };

// One write, whose process or thread ends before a given step.
class EndedWrite {
 public:
  EndedWrite(const std::vector<std::wstring>& arguments, Ends ends)
      : key(arguments[0].begin(), arguments[0].end()), value(std::stoi(arguments[1])) {
    files.onStep = [ends, left = std::stoi(arguments[2])](const char*) mutable {
      if (--left != 0) return 0U;
      if (ends == Ends::Thread) TerminateThread(GetCurrentThread(), kKilled);
      TerminateProcess(GetCurrentProcess(), kKilled);
      return 0U;
    };
  }

  int Run() const { return CapDataStore().persist(key, BsonElement::Int32(value)) ? 0 : 3; }

  int RunOnAThread() const {
    const Platform::UniqueHandle thread(CreateThread(
        nullptr, 0,
        [](void* self) { return static_cast<DWORD>(static_cast<const EndedWrite*>(self)->Run()); },
        const_cast<EndedWrite*>(this), 0, nullptr));
    WaitForSingleObject(thread.get(), INFINITE);
    DWORD code = 2;
    GetExitCodeThread(thread.get(), &code);
    return static_cast<int>(code);
  }

 private:
  const std::string key;
  const std::int32_t value;
  FaultyFiles files;
  Simulator::VirtualClock clock;  // waiting for another process takes no time
  const Platform::MachineScope scope{[this](Platform::Machine& machine) {
    machine.files = &files;
    machine.clock = &clock;
  }};
};

void HoldWhile(const std::filesystem::path& file) {
  const Platform::UniqueHandle mutex(CreateMutexW(nullptr, FALSE, CapDataStore::kMutexName));
  WaitForSingleObject(mutex.get(), INFINITE);
  std::ofstream(file).flush();
  while (std::filesystem::exists(file)) Sleep(50);
  ReleaseMutex(mutex.get());
}

int Run(const std::vector<std::wstring>& arguments) {
  if (arguments.size() == 1) {
    HoldWhile(arguments[0]);
    return 0;
  }
  if (arguments.size() == 2) {
    Storm(arguments[0], std::stoul(arguments[1]));
    return 0;
  }
  if (arguments.size() == 3) return EndedWrite(arguments, Ends::Process).Run();
  if (arguments.size() != 4) return 1;
  const int code = EndedWrite(arguments, Ends::Thread).RunOnAThread();
  const std::string later(arguments[3].begin(), arguments[3].end());
  return CapDataStore().persist(later, BsonElement::Int32(1)) ? code : 3;
}

}  // namespace
}  // namespace Vx::Tests

int wmain(int count, wchar_t** arguments) {
  try {
    return Vx::Tests::Run({arguments + 1, arguments + count});
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
  } catch (const Vx::Platform::WindowsRuntimeError& error) {
    static_cast<void>(std::fprintf(stderr, "0x%x\n", static_cast<unsigned>(error.code())));
  }
  return 2;
}
