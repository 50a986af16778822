// Another process that uses the shared store.
//
//   store_worker merge DOCUMENT MEMBER COUNT   merges COUNT values into one member, last COUNT - 1
//   store_worker subscribe KEY PREFIX COUNT    adds COUNT requests {"id":"PREFIXn"}
//   store_worker cut FILE SIZE EVENT           takes the mutex, cuts the file to SIZE bytes,
//   signals
//                                              the event and waits to be killed
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <string_view>

#include <windows.h>

#include "json/utf8.h"
#include "platform/hresult_error.h"
#include "storage/cap_data_store.h"
#include "storage/request_manager.h"

namespace {

using Vx::Tessel::Server::Services::Orvane::RequestManager;
using Vx::Tessel::Server::Storage::BsonElement;
using Vx::Tessel::Server::Storage::CapDataStore;

constexpr DWORD kLongestWait = 60'000;  // milliseconds; a forgotten worker does not stay for ever

bool Merge(const std::string& document, const std::string& member, int count) {
  for (int i = 0; i < count; ++i) {
    CapDataStore store;
    if (!store.mergeMember(document, member, BsonElement::Int32(i))) return false;
  }
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
  if (verb == L"merge") return Merge(narrow(2), narrow(3), _wtoi(arguments[4]));
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
