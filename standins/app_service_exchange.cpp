#include "standins/app_service_exchange.h"

#include "platform/winrt/winrt_calls.h"

namespace Vx::Tessel::Server::TesselCommunication {

namespace {

using Abi::ComPtr;
using Platform::Activate;
using Platform::Check;
using Platform::CheckMade;
using Platform::FactoryOf;
using Platform::MakeString;

template <typename T>
T ResultsOf(const ComPtr<Abi::IAsyncOperation<T>>& operation, std::chrono::milliseconds limit) {
  Check(Platform::Await(operation, limit).result, L"IAsyncOperation");
  T results{};
  Check(operation->GetResults(&results), L"IAsyncOperation::GetResults");
  return results;
}

// Closes the connection. Otherwise the app's service runs until the system collects the object.
class ConnectionCloser {
 public:
  explicit ConnectionCloser(const ComPtr<Abi::IAppServiceConnection>& opened)
      : connection(opened) {}
  ConnectionCloser(const ConnectionCloser&) = delete;
  ConnectionCloser& operator=(const ConnectionCloser&) = delete;
  ~ConnectionCloser() {
    ComPtr<Abi::IClosable> closable;
    if (SUCCEEDED(Abi::Query(connection, closable))) closable->Close();
  }

 private:
  const ComPtr<Abi::IAppServiceConnection>& connection;
};

ComPtr<Abi::IPropertySet> MakeMessage(const std::wstring& text) {
  const auto values = FactoryOf<Abi::IPropertyValueStatics>(Abi::kPropertyValueClass);
  ComPtr<IInspectable> boxed;
  const HRESULT created = values->CreateString(MakeString(text).Get(), boxed.Receive());
  CheckMade(created, boxed, L"IPropertyValueStatics::CreateString");

  auto message = Activate<Abi::IPropertySet>(Abi::kValueSetClass);
  ComPtr<Abi::IStringMap> map;
  Check(Abi::Query(message, map), L"IMap");
  Abi::Boolean replaced = 0;
  Check(map->Insert(MakeString(kMessageKey).Get(), boxed.Get(), &replaced), L"IMap::Insert");
  return message;
}

std::wstring TextOf(Abi::IAppServiceResponse& response) {
  ComPtr<Abi::IPropertySet> message;
  Check(response.get_Message(message.Receive()), L"IAppServiceResponse::get_Message");
  if (!message) return {};
  ComPtr<Abi::IStringMap> map;
  Check(Abi::Query(message, map), L"IMap");
  const Abi::HString key = MakeString(kReplyKey);
  Abi::Boolean present = 0;
  Check(map->HasKey(key.Get(), &present), L"IMap::HasKey");
  if (present == 0) return {};
  ComPtr<IInspectable> boxed;
  const HRESULT found = map->Lookup(key.Get(), boxed.Receive());
  CheckMade(found, boxed, L"IMap::Lookup");
  ComPtr<Abi::IPropertyValue> value;
  Abi::PropertyType type = Abi::PropertyType::Empty;
  if (FAILED(Abi::Query(boxed, value)) || FAILED(value->get_Type(&type))) return {};
  if (type != Abi::PropertyType::String) return {};
  Abi::HString text;
  Check(value->GetString(text.Receive()), L"IPropertyValue::GetString");
  return std::wstring(text.View());
}

std::pair<int, std::wstring> Exchange(const std::wstring& packageFamilyName,
                                      const std::wstring& appServiceName, const std::wstring& text,
                                      std::chrono::milliseconds limit) {
  const auto connection = Activate<Abi::IAppServiceConnection>(Abi::kAppServiceConnectionClass);
  const ConnectionCloser closer(connection);
  Check(connection->put_PackageFamilyName(MakeString(packageFamilyName).Get()),
        L"IAppServiceConnection::put_PackageFamilyName");
  Check(connection->put_AppServiceName(MakeString(appServiceName).Get()),
        L"IAppServiceConnection::put_AppServiceName");

  ComPtr<Abi::IAppServiceOpenOperation> opening;
  const HRESULT begun = connection->OpenAsync(opening.Receive());
  CheckMade(begun, opening, L"IAppServiceConnection::OpenAsync");
  const auto opened = ResultsOf(opening, limit);
  if (opened != Abi::AppServiceConnectionStatus::Success) return {static_cast<int>(opened), {}};

  ComPtr<Abi::IAppServiceSendOperation> sending;
  const HRESULT sent = connection->SendMessageAsync(MakeMessage(text).Get(), sending.Receive());
  CheckMade(sent, sending, L"IAppServiceConnection::SendMessageAsync");
  const ComPtr<Abi::IAppServiceResponse> response(ResultsOf(sending, limit));
  CheckMade(S_OK, response, L"IAsyncOperation::GetResults");
  Abi::AppServiceResponseStatus status = Abi::AppServiceResponseStatus::Success;
  Check(response->get_Status(&status), L"IAppServiceResponse::get_Status");
  if (status != Abi::AppServiceResponseStatus::Success) {
    return {kResponseStatusBase + static_cast<int>(status), {}};
  }
  return {0, TextOf(*response.Get())};
}

}  // namespace

std::pair<int, std::wstring> ExchangeWithAppService(const std::wstring& packageFamilyName,
                                                    const std::wstring& appServiceName,
                                                    const std::wstring& text,
                                                    std::chrono::milliseconds limit) {
  try {
    const Platform::ApartmentScope apartment;
    return Exchange(packageFamilyName, appServiceName, text, limit);
  } catch (const Platform::WindowsRuntimeError& error) {
    return {error.code(), {}};
  }
}

}  // namespace Vx::Tessel::Server::TesselCommunication
