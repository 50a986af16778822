// Another process that uses the shared store.
//
//   store_worker storm NOTES PROCESS DOCUMENT  counts up members until the notes tell it to end
//   store_worker subscribe KEY PREFIX COUNT    adds COUNT requests {"id":"PREFIXn"}
//   store_worker cut FILE SIZE EVENT           takes the mutex, cuts the file to SIZE bytes,
//                                              signals the event and waits to be killed
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <windows.h>

#include "json/utf8.h"
#include "platform/hresult_error.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"
#include "storage/store_faults.h"
#include "storage/store_storm.h"

namespace {

using Vx::Tessel::Server::Services::Orvane::RequestManager;
using Vx::Tessel::Server::Storage::BsonElement;
using Vx::Tessel::Server::Storage::CapDataStore;

constexpr DWORD kLongestWait = 60'000;  // milliseconds; a forgotten worker does not stay for ever

// Notes when a kill would cut the file.
class NotedFiles final : public Vx::Tests::FaultyFiles {
 public:
  explicit NotedFiles(std::atomic<bool>& flag) : writing(flag) {}
  Vx::Platform::ErrorCode Overwrite(const std::wstring& path,
                                    std::span<const std::byte> content) override {
    writing = true;
    const Vx::Platform::ErrorCode error = FaultyFiles::Overwrite(path, content);
    writing = false;
    writes.clear();
    return error;
  }

 private:
  std::atomic<bool>& writing;
};

// A store that throws ends the process, and so the test sees it.
void CountUp(const Vx::Tests::SharedNotes& notes, std::size_t self, std::size_t writer,
             const std::string& document) {
  Vx::Tests::StormProcess& process = notes->processes.at(self);
  Vx::Tests::StormWriter& own = process.writers.at(writer);
  for (bool last = false; !last;) {
    last = notes->end;
    const std::int32_t value = ++own.begun;
    CapDataStore store;
    if (store.mergeMember(document, Vx::Tests::MemberOf(self, writer), BsonElement::Int32(value))) {
      own.acknowledged = value;
    } else {
      ++process.refused;
    }
  }
}

bool Storm(const std::wstring& name, std::size_t self, const std::string& document) {
  const Vx::Tests::SharedNotes notes(name);
  NotedFiles files(notes->processes.at(self).writing);
  const Vx::Platform::MachineScope scope(
      [&](Vx::Platform::Machine& machine) { machine.files = &files; });
  std::vector<std::thread> writers;
  writers.reserve(Vx::Tests::kWritersOfAProcess);
  for (std::size_t i = 0; i < Vx::Tests::kWritersOfAProcess; ++i) {
    writers.emplace_back([&, i] { CountUp(notes, self, i, document); });
  }
  for (std::thread& writer : writers) writer.join();
  return true;
}

bool Subscribe(const std::string& key, const std::wstring& prefix, int count) {
  for (int i = 0; i < count; ++i) {
    RequestManager manager(Vx::Tessel::Server::Services::Orvane::kServiceDocument, key);
    manager.PersistRequest(L"{\"id\":\"" + prefix + std::to_wstring(i) + L"\"}");
  }
  return true;
}

bool Cut(const wchar_t* file, long size, const wchar_t* event) {
  HANDLE mutex = CreateMutexW(nullptr, FALSE, L"18CC6446-1DB5-4D23-8F2B-441BA13883D6");
  WaitForSingleObject(mutex, INFINITE);
  HANDLE handle =
      CreateFileW(file, GENERIC_WRITE, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  const bool cut = SetFilePointer(handle, size, nullptr, FILE_BEGIN) == static_cast<DWORD>(size) &&
                   SetEndOfFile(handle) != 0;
  CloseHandle(handle);
  SetEvent(CreateEventW(nullptr, TRUE, FALSE, event));
  Sleep(kLongestWait);
  return cut;
}

bool Run(int count, wchar_t** arguments) {
  if (count != 5) return false;
  const std::wstring_view verb = arguments[1];
  const auto narrow = [&](int i) { return Vx::Json::ToUtf8(arguments[i]); };
  if (verb == L"storm") {
    return Storm(arguments[2], static_cast<std::size_t>(_wtoi(arguments[3])), narrow(4));
  }
  if (verb == L"subscribe") return Subscribe(narrow(2), arguments[3], _wtoi(arguments[4]));
  if (verb == L"cut") return Cut(arguments[2], _wtol(arguments[3]), arguments[4]);
  return false;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  try {
    return Run(count, arguments) ? 0 : 1;
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
  } catch (const winrt::hresult_error& error) {
    static_cast<void>(std::fprintf(stderr, "0x%x\n", static_cast<unsigned>(error.code())));
  }
  return 2;
}
