#include "standins/app_service_exchange.h"

#include <memory>
#include <string_view>

#include "platform/winrt/winrt_owners.h"

namespace Vx::Tessel::Server::TesselCommunication {

namespace {

// A step that was refused; ends in ExchangeWithAppService.
struct StepFailed {
  int status;
};

void Check(HRESULT result) {
  if (FAILED(result)) throw StepFailed{result};
}

template <typename T>
void CheckMade(HRESULT result, const Abi::ComPtr<T>& object) {
  Check(result);
  if (!object) throw StepFailed{E_UNEXPECTED};
}

Abi::HString MakeString(std::wstring_view text) {
  Abi::HString result;
  Check(result.Assign(text));
  return result;
}

// Whether an operation has ended. Shared with its completion handler, which the system may still
// call after the waiting has been given up.
class Completion {
 public:
  void Signal() noexcept {
    AcquireSRWLockExclusive(&lock);
    done = true;
    ReleaseSRWLockExclusive(&lock);
    WakeAllConditionVariable(&changed);
  }

  bool WaitUntil(std::uint64_t deadlineTick) noexcept {
    AcquireSRWLockExclusive(&lock);
    for (std::uint64_t now = GetTickCount64(); !done && now < deadlineTick;
         now = GetTickCount64()) {
      SleepConditionVariableSRW(&changed, &lock, static_cast<DWORD>(deadlineTick - now), 0);
    }
    const bool ended = done;
    ReleaseSRWLockExclusive(&lock);
    return ended;
  }

 private:
  SRWLOCK lock = SRWLOCK_INIT;
  CONDITION_VARIABLE changed = CONDITION_VARIABLE_INIT;
  bool done = false;
};

template <typename T>
T Await(Abi::IAsyncOperation<T>& operation, std::chrono::milliseconds limit) {
  const std::uint64_t deadline = GetTickCount64() + static_cast<std::uint64_t>(limit.count());
  const auto completion = std::make_shared<Completion>();
  const auto handler = Abi::MakeDelegate<typename Abi::IAsyncOperation<T>::Handler>(
      [completion](Abi::IAsyncOperation<T>*, Abi::AsyncStatus) noexcept -> HRESULT {
        completion->Signal();
        return S_OK;
      });
  Abi::ComPtr<Abi::IAsyncInfo> info;
  Check(operation.QueryInterface(Abi::IidOf<Abi::IAsyncInfo>(),
                                 reinterpret_cast<void**>(info.Receive())));
  Check(operation.put_Completed(handler.Get()));
  if (!completion->WaitUntil(deadline)) {
    info->Cancel();
    throw StepFailed{HRESULT_FROM_WIN32(ERROR_TIMEOUT)};
  }
  Abi::AsyncStatus status = Abi::AsyncStatus::Error;
  Check(info->get_Status(&status));
  if (status != Abi::AsyncStatus::Completed) {
    HRESULT code = S_OK;
    Check(info->get_ErrorCode(&code));
    throw StepFailed{FAILED(code) ? code : E_FAIL};
  }
  T results{};
  Check(operation.GetResults(&results));
  return results;
}

// Says goodbye to the app, which otherwise keeps its service running until the object is collected.
class ConnectionCloser {
 public:
  explicit ConnectionCloser(const Abi::ComPtr<Abi::IAppServiceConnection>& opened)
      : connection(opened) {}
  ConnectionCloser(const ConnectionCloser&) = delete;
  ConnectionCloser& operator=(const ConnectionCloser&) = delete;
  ~ConnectionCloser() {
    Abi::ComPtr<Abi::IClosable> closable;
    if (SUCCEEDED(Abi::Query(connection, closable))) closable->Close();
  }

 private:
  const Abi::ComPtr<Abi::IAppServiceConnection>& connection;
};

Abi::ComPtr<Abi::IPropertySet> MakeMessage(const std::wstring& text) {
  Abi::ComPtr<Abi::IPropertyValueStatics> values;
  const HRESULT found = Abi::GetFactory(Abi::kPropertyValueClass, values);
  CheckMade(found, values);
  Abi::ComPtr<IInspectable> boxed;
  const HRESULT created = values->CreateString(MakeString(text).Get(), boxed.Receive());
  CheckMade(created, boxed);

  Abi::ComPtr<Abi::IPropertySet> message;
  const HRESULT activated = Abi::Activate(Abi::kValueSetClass, message);
  CheckMade(activated, message);
  Abi::ComPtr<Abi::IStringMap> map;
  Check(Abi::Query(message, map));
  Abi::Boolean replaced = 0;
  Check(map->Insert(MakeString(kMessageKey).Get(), boxed.Get(), &replaced));
  return message;
}

std::wstring TextOf(Abi::IAppServiceResponse& response) {
  Abi::ComPtr<Abi::IPropertySet> message;
  Check(response.get_Message(message.Receive()));
  if (!message) return {};
  Abi::ComPtr<Abi::IStringMap> map;
  Check(Abi::Query(message, map));
  const Abi::HString key = MakeString(kReplyKey);
  Abi::Boolean present = 0;
  Check(map->HasKey(key.Get(), &present));
  if (present == 0) return {};
  Abi::ComPtr<IInspectable> boxed;
  const HRESULT found = map->Lookup(key.Get(), boxed.Receive());
  CheckMade(found, boxed);
  Abi::ComPtr<Abi::IPropertyValue> value;
  Abi::PropertyType type = Abi::PropertyType::Empty;
  if (FAILED(Abi::Query(boxed, value)) || FAILED(value->get_Type(&type))) return {};
  if (type != Abi::PropertyType::String) return {};
  Abi::HString text;
  Check(value->GetString(text.Receive()));
  return std::wstring(text.View());
}

std::wstring Exchange(const std::wstring& packageFamilyName, const std::wstring& appServiceName,
                      const std::wstring& text, std::chrono::milliseconds limit) {
  Abi::ComPtr<Abi::IAppServiceConnection> connection;
  const HRESULT activated = Abi::Activate(Abi::kAppServiceConnectionClass, connection);
  CheckMade(activated, connection);
  const ConnectionCloser closer(connection);
  Check(connection->put_PackageFamilyName(MakeString(packageFamilyName).Get()));
  Check(connection->put_AppServiceName(MakeString(appServiceName).Get()));

  Abi::ComPtr<Abi::IAppServiceOpenOperation> opening;
  const HRESULT begun = connection->OpenAsync(opening.Receive());
  CheckMade(begun, opening);
  const auto opened = Await(*opening.Get(), limit);
  if (opened != Abi::AppServiceConnectionStatus::Success) {
    throw StepFailed{static_cast<int>(opened)};
  }

  Abi::ComPtr<Abi::IAppServiceSendOperation> sending;
  const auto message = MakeMessage(text);
  const HRESULT sent = connection->SendMessageAsync(message.Get(), sending.Receive());
  CheckMade(sent, sending);
  const auto response = Abi::ComPtr<Abi::IAppServiceResponse>(Await(*sending.Get(), limit));
  if (!response) throw StepFailed{E_UNEXPECTED};
  Abi::AppServiceResponseStatus status = Abi::AppServiceResponseStatus::Success;
  Check(response->get_Status(&status));
  if (status != Abi::AppServiceResponseStatus::Success) {
    throw StepFailed{kResponseStatusBase + static_cast<int>(status)};
  }
  return TextOf(*response.Get());
}

}  // namespace

std::pair<int, std::wstring> ExchangeWithAppService(const std::wstring& packageFamilyName,
                                                    const std::wstring& appServiceName,
                                                    const std::wstring& text,
                                                    std::chrono::milliseconds limit) {
  const Abi::Apartment apartment;
  if (FAILED(apartment.Result())) return {apartment.Result(), {}};
  try {
    return {0, Exchange(packageFamilyName, appServiceName, text, limit)};
  } catch (const StepFailed& failure) {
    return {failure.status, {}};
  }
}

}  // namespace Vx::Tessel::Server::TesselCommunication
