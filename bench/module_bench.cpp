// Measures what the module costs its host: its load time and size, an idle service's memory, and
// how much longer the first launch takes than the next.
//
// Usage: module_bench [--brief] [--json FILE]
#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <string>
#include <vector>

#include <windows.h>

#include "bench/beside.h"
#include "bench/ratio_table.h"
#include "host/vx_service.h"
#include "support/process_gauges.h"

namespace {

using namespace Vx::Bench;
using Vx::Tessel::Server::Services::CreateServiceFunction;
using Vx::Tessel::Server::Services::kCreateServiceExport;
using Vx::Tessel::Server::Services::VxService;

constexpr DWORD kSettle = 2000;  // milliseconds until the background tasks have begun their waits

class Library {
 public:
  explicit Library(const std::wstring& path)
      : handle(LoadLibraryExW(path.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)) {
    if (handle == nullptr) throw std::runtime_error("cannot load a library");
  }
  Library(const Library&) = delete;
  Library& operator=(const Library&) = delete;
  ~Library() { FreeLibrary(handle); }

  VxService* MakeService() const {
    const auto create = reinterpret_cast<CreateServiceFunction>(
        reinterpret_cast<void*>(GetProcAddress(handle, kCreateServiceExport)));
    VxService* const service = create == nullptr ? nullptr : create();
    if (service == nullptr) throw std::runtime_error("the module gives no service");
    return service;
  }

 private:
  HMODULE handle;
};

void ReportMemory(const std::wstring& module, RatioTable& table) {
  constexpr double kKibibyte = 1024;
  const auto before = Vx::Tests::MeasureMemory();
  const Library library(module);
  VxService* const service = library.MakeService();
  service->Start();
  Sleep(kSettle);
  const auto after = Vx::Tests::MeasureMemory();
  table.Report("private bytes of an idle, started service",
               static_cast<double>(after.committed - before.committed) / kKibibyte, "KiB");
  table.Report("heap blocks of it", static_cast<double>(after.heap - before.heap) / kKibibyte,
               "KiB");
  service->Destroy(1);
  WIN32_FILE_ATTRIBUTE_DATA data{};
  GetFileAttributesExW(module.c_str(), GetFileExInfoStandard, &data);
  table.Report("size of the module", static_cast<double>(data.nFileSizeLow) / kKibibyte, "KiB");
}

// Reports the libraries that the module loads only when a launch or the firmware needs them.
void ReportDeferredLibraries(const std::wstring& module, RatioTable& table) {
  constexpr int kTurns = 11;
  using Milliseconds = std::chrono::duration<double, std::milli>;
  const Library host(module);
  std::vector<double> times;
  for (int turn = 0; turn < kTurns; ++turn) {
    const auto start = std::chrono::steady_clock::now();
    const Library libraries[] = {Library(L"wintrust.dll"), Library(L"userenv.dll"),
                                 Library(L"shell32.dll"), Library(L"oleaut32.dll")};
    times.push_back(Milliseconds(std::chrono::steady_clock::now() - start).count());
  }
  std::ranges::nth_element(times, times.begin() + kTurns / 2);
  table.Report("loading what only a launch or the firmware needs", times[kTurns / 2], "ms");
}

void Measure(const std::wstring& module, const std::wstring& empty, const std::wstring& sameImports,
             RatioTable& table) {
  const auto use = [&] { Library(module).MakeService()->Destroy(1); };
  table.Compare("load, create, destroy, unload", "loading and unloading an empty library", 0, 1,
                use, [&] { const Library library(empty); });
  table.Compare("the same", "an empty library that imports the same libraries", 1.5, 1, use,
                [&] { const Library library(sameImports); });
  ReportDeferredLibraries(module, table);
  ReportMemory(module, table);
}

}  // namespace

int main(int argc, char** argv) {
  const std::wstring module = Beside(L"..\\bin\\OrvaneService.dll");
  const std::wstring empty = Beside(L"..\\bin\\empty_library.dll");
  const std::wstring sameImports = Beside(L"same_imports.dll");
  return RunBenchmarks(
      argc, argv, [&](RatioTable& table, Effort) { Measure(module, empty, sameImports, table); });
}
