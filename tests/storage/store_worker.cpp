// Another process that uses the shared store.
//
//   store_worker NOTES PROCESS  increments members until the notes end the storm
//   store_worker KEY VALUE STEP  stores the value under the key, and ends itself before that step
//                                of the write, counted from 1
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include <windows.h>

#include "platform/machine.h"
#include "platform/windows_runtime_error.h"
#include "storage/cap_data_store.h"
#include "storage/store_faults.h"
#include "storage/store_storm.h"

namespace {

using Vx::Tessel::Server::Storage::BsonElement;
using Vx::Tessel::Server::Storage::CapDataStore;

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
  std::vector<std::thread> writers;
  writers.reserve(Vx::Tests::kWritersOfAProcess);
  for (std::size_t i = 0; i < Vx::Tests::kWritersOfAProcess; ++i) {
    writers.emplace_back([&, i] { CountUp(notes, self, i); });
  }
  for (std::thread& writer : writers) writer.join();
}

bool WriteUpTo(const std::string& key, std::int32_t value, int lastStep) {
  Vx::Tests::FaultyFiles files;
  int steps = 0;
  const Vx::Platform::MachineScope scope(
      [&](Vx::Platform::Machine& machine) { machine.files = &files; });
  CapDataStore store;
  files.onStep = [&](const char*) {
    if (++steps == lastStep) TerminateProcess(GetCurrentProcess(), Vx::Tests::kKilled);
    return 0U;
  };
  return store.persist(key, BsonElement::Int32(value));
}

int Run(const std::vector<std::wstring>& arguments) {
  if (arguments.size() == 2) {
    Storm(arguments[0], std::stoul(arguments[1]));
    return 0;
  }
  if (arguments.size() != 3) return 1;
  const std::string key(arguments[0].begin(), arguments[0].end());
  return WriteUpTo(key, std::stoi(arguments[1]), std::stoi(arguments[2])) ? 0 : 3;
}

}  // namespace

int wmain(int count, wchar_t** arguments) {
  try {
    return Run({arguments + 1, arguments + count});
  } catch (const std::exception& error) {
    static_cast<void>(std::fprintf(stderr, "%s\n", error.what()));
  } catch (const Vx::Platform::WindowsRuntimeError& error) {
    static_cast<void>(std::fprintf(stderr, "0x%x\n", static_cast<unsigned>(error.code())));
  }
  return 2;
}
