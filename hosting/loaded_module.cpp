#include "hosting/loaded_module.h"

#include <algorithm>
#include <cstddef>
#include <exception>
#include <iterator>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <windows.h>

#include "hosting/text.h"
#include "platform/runtime/fail_fast.h"

namespace Vx::Hosting {

using Tessel::Server::Services::ClientContext;

namespace {

constexpr std::size_t kLongestCaller = 64;  // a longer one makes the module terminate the process

// Both throw std::out_of_range if `offset` is beyond the end of the image.
template <typename Value>
Value ValueAt(std::string_view image, std::size_t offset) {
  Value value{};
  if (image.copy(reinterpret_cast<char*>(&value), sizeof value, offset) < sizeof value) {
    throw std::out_of_range("beyond the end");
  }
  return value;
}
std::string_view TextAt(std::string_view image, std::size_t offset) {
  const std::string_view text = image.substr(offset);
  return text.substr(0, text.find('\0'));
}

bool Exports(std::string_view image, const IMAGE_DATA_DIRECTORY& directory, std::string_view name) {
  if (directory.Size == 0) return false;
  const auto exports = ValueAt<IMAGE_EXPORT_DIRECTORY>(image, directory.VirtualAddress);
  for (std::size_t i = 0; i < exports.NumberOfNames; ++i) {
    const auto at = ValueAt<DWORD>(image, exports.AddressOfNames + i * sizeof(DWORD));
    if (TextAt(image, at) == name) return true;
  }
  return false;
}

// Returns the first imported library that is not in the system directory, or an empty string.
std::string MissingImport(std::string_view image, const IMAGE_DATA_DIRECTORY& directory) {
  for (std::size_t at = directory.VirtualAddress; directory.Size != 0;
       at += sizeof(IMAGE_IMPORT_DESCRIPTOR)) {
    const auto import = ValueAt<IMAGE_IMPORT_DESCRIPTOR>(image, at);
    if (import.Name == 0) break;
    std::string name(TextAt(image, import.Name));
    if (name.find_first_of("\\/:") != std::string::npos) return name;  // a path can name any file
    // Loads the library, because the name of an API set is not that of a file.
    const UniqueLibrary found(
        LoadLibraryExW(Wide(name).c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
    if (found == nullptr) return name;
  }
  return {};
}

constexpr wchar_t kNoSink[] =
    L"the module logs through a library without VxSetLogSink, so its lines are not in this log";

constexpr const wchar_t* kLevels[] = {L"INFO", L"WARNING", L"ERROR"};
constexpr std::uint32_t kWarning = 1;

// Returns the member, or zero if the struct is too short to contain it.
template <typename Struct, typename Value>
Value Read(const Struct& all, Value Struct::*member) {
  const auto* const end = reinterpret_cast<const std::byte*>(&(all.*member) + 1);
  const auto size = static_cast<std::size_t>(end - reinterpret_cast<const std::byte*>(&all));
  return size <= all.size ? all.*member : Value{};
}

std::mutex runningLock;
std::map<DWORD, CommandResult*> running;  // by the ID of the thread that runs the command

// While this object exists, NoteDecision on this thread copies to `result`. The module logs a
// command's record on the thread that runs it.
class DecisionScope {
 public:
  explicit DecisionScope(CommandResult& result) {
    const std::lock_guard guard(runningLock);
    running[GetCurrentThreadId()] = &result;
  }
  DecisionScope(const DecisionScope&) = delete;
  DecisionScope& operator=(const DecisionScope&) = delete;
  ~DecisionScope() {
    const std::lock_guard guard(runningLock);
    running.erase(GetCurrentThreadId());
  }
};

template <typename Struct>
std::wstring ReadText(const Struct& all, const wchar_t* Struct::*member) {
  const wchar_t* const text = Read(all, member);
  return text != nullptr ? text : L"";
}

}  // namespace

void PrepareProgram() noexcept {
  Platform::FailFastOnTerminate();
  // Otherwise, a file next to the program could replace one that an imported library loads later.
  // https://learn.microsoft.com/windows/win32/api/libloaderapi/nf-libloaderapi-setdefaultdlldirectories
  if (SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32) == FALSE) Platform::FailFast();
}

void LibraryFreer::operator()(void* library) const noexcept {
  FreeLibrary(static_cast<HMODULE>(library));
}

// With this flag, Windows runs no code, loads no imports and tags the low two bits of the handle:
// https://learn.microsoft.com/windows/win32/api/libloaderapi/nf-libloaderapi-loadlibraryexw
std::string WhyNoModule(const std::wstring& fullPath) {
  const UniqueLibrary mapped(
      LoadLibraryExW(fullPath.c_str(), nullptr, LOAD_LIBRARY_AS_IMAGE_RESOURCE));
  if (mapped == nullptr)
    return "is missing or not a program, error " + std::to_string(GetLastError());
  const auto* const base =
      static_cast<const char*>(mapped.get()) - (reinterpret_cast<std::uintptr_t>(mapped.get()) & 3);
  const auto* const headers = reinterpret_cast<const IMAGE_NT_HEADERS64*>(
      base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  if (headers->FileHeader.Machine != IMAGE_FILE_MACHINE_AMD64) return "is not for 64-bit Windows";
  const std::string_view image(base, headers->OptionalHeader.SizeOfImage);
  const auto& directories = headers->OptionalHeader.DataDirectory;
  try {
    const std::string missing = MissingImport(image, directories[IMAGE_DIRECTORY_ENTRY_IMPORT]);
    if (!missing.empty()) return "imports " + missing + ", which Windows does not have";
    constexpr const char* kExport = Tessel::Server::Services::kCreateServiceExport;
    return Exports(image, directories[IMAGE_DIRECTORY_ENTRY_EXPORT], kExport)
               ? ""
               : std::string("is not a service module: it does not export ") + kExport;
  } catch (const std::out_of_range&) {
    return "is damaged";
  }
}

CommandResult ServiceSession::Execute(std::uint32_t id, const std::wstring& request,
                                      const std::wstring& caller) {
  if (caller.size() > kLongestCaller) {
    throw std::runtime_error("a client's identity has at most 64 characters");
  }
  // Releases the context even if the code below runs out of memory.
  const auto release = [this](ClientContext* context) { service->ReleaseClientContext(&context); };
  ClientContext* made = nullptr;
  service->CreateClientContext(caller.c_str(), &made);
  const std::unique_ptr<ClientContext, decltype(release)> context(made, release);
  CommandResult answer;
  const DecisionScope decided(answer);
  wchar_t* text = nullptr;
  answer.code = Slots()->ExecuteCommand(context.get(), id, request.c_str(), &text, nullptr);
  const auto free = [this](wchar_t* response) { service->FreeResponse(response); };
  const std::unique_ptr<wchar_t, decltype(free)> response(text, free);
  if (response != nullptr) answer.text = std::wstring(response.get());
  return answer;
}

LoadedModule::LoadedModule(const std::wstring& fullPath)
    : module(LoadLibraryExW(fullPath.c_str(), nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32)) {
  if (module == nullptr) {
    const DWORD error = GetLastError();
    const std::string why = WhyNoModule(fullPath);
    throw WindowsError("cannot load " + Utf8(fullPath), error, why.empty() ? why : "; it " + why);
  }
  factory = reinterpret_cast<Tessel::Server::Services::CreateServiceFunction>(
      Find(Tessel::Server::Services::kCreateServiceExport));
  if (factory == nullptr) {
    throw std::runtime_error(Utf8(fullPath) + " is not a service module: it does not export " +
                             Tessel::Server::Services::kCreateServiceExport);
  }
}

void* LoadedModule::Find(const char* name) const {
  return reinterpret_cast<void*>(GetProcAddress(static_cast<HMODULE>(module.get()), name));
}

ServiceSession LoadedModule::NewService() const {
  ServicesMutexFor(StoreUse::Write);  // throws before the module does any work
  auto* service = factory();
  if (service == nullptr) throw std::runtime_error("the module's factory returned null");
  return ServiceSession(service);
}

const wchar_t* LevelName(std::uint32_t level) {
  return kLevels[std::min<std::size_t>(level, std::size(kLevels) - 1)];
}

LogLine LineOf(const VxLogLine& line) {
  LogLine copy{.level = LevelName(Read(line, &VxLogLine::level)),
               .provider = ReadText(line, &VxLogLine::provider),
               .caller = ReadText(line, &VxLogLine::caller),
               .message = ReadText(line, &VxLogLine::text)};
  if (const VxLogRecord* const record = Read(line, &VxLogLine::record); record != nullptr) {
    copy.record = RecordOf(*record);
  }
  return copy;
}

DecisionRecord RecordOf(const VxLogRecord& record) {
  DecisionRecord copy;
  for (const auto& member : kRecordTexts) copy.*member.text = ReadText(record, member.source);
  copy.number = Read(record, &VxLogRecord::number);
  copy.status = Read(record, &VxLogRecord::status);
  copy.process = Read(record, &VxLogRecord::process);
  copy.delivery = Read(record, &VxLogRecord::delivery);
  copy.milliseconds = Read(record, &VxLogRecord::milliseconds);
  return copy;
}

void NoteDecision(const VxLogRecord& record) {
  if (ReadText(record, &VxLogRecord::kind) != L"command") return;
  const std::lock_guard guard(runningLock);
  const auto mine = running.find(GetCurrentThreadId());
  if (mine == running.end()) return;
  mine->second->decision = ReadText(record, &VxLogRecord::decision);
  mine->second->reason = ReadText(record, &VxLogRecord::reason);
}

ModuleLog::ModuleLog(const LoadedModule& module, Receiver function)
    : receiver(std::move(function)),
      setSink{reinterpret_cast<VxSetLogSinkFunction>(module.Find("VxSetLogSink"))} {
  if (setSink != nullptr) {
    setSink(&Take, this);
    return;
  }
  const VxLogLine warning{.size = sizeof warning,
                          .level = kWarning,
                          .thread = GetCurrentThreadId(),
                          .provider = kHostProvider,
                          .caller = L"",
                          .text = kNoSink,
                          .record = nullptr};
  Take(&warning, this);
}

ModuleLog::~ModuleLog() {
  if (setSink != nullptr) setSink(nullptr, nullptr);
}

void ModuleLog::Take(const VxLogLine* line, void* context) noexcept {
  try {
    const VxLogRecord* const record = Read(*line, &VxLogLine::record);
    if (record != nullptr) NoteDecision(*record);
    static_cast<ModuleLog*>(context)->receiver(*line);
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): see the header
  }
}

}  // namespace Vx::Hosting
