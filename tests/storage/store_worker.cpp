// Another process that uses the shared store.
//
//   store_worker NOTES PROCESS  increments members until the notes end the storm
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <span>
#include <string>
#include <thread>
#include <vector>

#include "platform/windows_runtime_error.h"
#include "storage/cap_data_store.h"
#include "storage/store_faults.h"
#include "storage/store_storm.h"

namespace {

using Vx::Tessel::Server::Storage::BsonElement;
using Vx::Tessel::Server::Storage::CapDataStore;

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

// An exception of the store ends the process, which the test notices.
void CountUp(const Vx::Tests::SharedNotes& notes, std::size_t self, std::size_t writer) {
  Vx::Tests::StormProcess& process = notes->processes.at(self);
  Vx::Tests::StormWriter& own = process.writers.at(writer);
  for (bool last = false; !last;) {
    last = notes->end;
    const std::int32_t value = ++own.begun;
    CapDataStore store;
    if (store.mergeMember(Vx::Tests::kStormDocument, Vx::Tests::MemberOf(self, writer),
                          BsonElement::Int32(value))) {
      own.acknowledged = value;
    } else {
      ++process.refused;
    }
  }
}

void Storm(const std::wstring& name, std::size_t self) {
  const Vx::Tests::SharedNotes notes(name);
  NotedFiles files(notes->processes.at(self).writing);
  const Vx::Platform::MachineScope scope(
      [&](Vx::Platform::Machine& machine) { machine.files = &files; });
  std::vector<std::thread> writers;
  writers.reserve(Vx::Tests::kWritersOfAProcess);
  for (std::size_t i = 0; i < Vx::Tests::kWritersOfAProcess; ++i) {
    writers.emplace_back([&, i] { CountUp(notes, self, i); });
  }
  for (std::thread& writer : writers) writer.join();
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  try {
    if (count != 3) return 1;
    Storm(arguments[1], static_cast<std::size_t>(_wtoi(arguments[2])));
    return 0;
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
  } catch (const Vx::Platform::WindowsRuntimeError& error) {
    static_cast<void>(std::fprintf(stderr, "0x%x\n", static_cast<unsigned>(error.code())));
  }
  return 2;
}
