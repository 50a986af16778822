#pragma once

#include <windows.h>

#include <wbemcli.h>

// COM objects are released, not deleted through an interface, so they need no virtual destructor.
#pragma GCC diagnostic ignored "-Wnon-virtual-dtor"

namespace Vx::Simulator {

// Stubs of the WMI interfaces in which every method returns E_NOTIMPL, so that a derived class
// overrides only the methods it needs. The methods are in the interface's order.

#define VX_REFUSES(name, ...)                            \
  HRESULT STDMETHODCALLTYPE name(__VA_ARGS__) override { \
    return E_NOTIMPL;                                    \
  }

class WbemServicesStub : public IWbemServices {
 public:
  VX_REFUSES(OpenNamespace, const BSTR, LONG, IWbemContext*, IWbemServices**, IWbemCallResult**)
  VX_REFUSES(CancelAsyncCall, IWbemObjectSink*)
  VX_REFUSES(QueryObjectSink, LONG, IWbemObjectSink**)
  VX_REFUSES(GetObject, const BSTR, LONG, IWbemContext*, IWbemClassObject**, IWbemCallResult**)
  VX_REFUSES(GetObjectAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
  VX_REFUSES(PutClass, IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**)
  VX_REFUSES(PutClassAsync, IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*)
  VX_REFUSES(DeleteClass, const BSTR, LONG, IWbemContext*, IWbemCallResult**)
  VX_REFUSES(DeleteClassAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
  VX_REFUSES(CreateClassEnum, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**)
  VX_REFUSES(CreateClassEnumAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
  VX_REFUSES(PutInstance, IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**)
  VX_REFUSES(PutInstanceAsync, IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*)
  VX_REFUSES(DeleteInstance, const BSTR, LONG, IWbemContext*, IWbemCallResult**)
  VX_REFUSES(DeleteInstanceAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
  VX_REFUSES(CreateInstanceEnum, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**)
  VX_REFUSES(CreateInstanceEnumAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
  VX_REFUSES(ExecQuery, const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**)
  VX_REFUSES(ExecQueryAsync, const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
  VX_REFUSES(ExecNotificationQuery, const BSTR, const BSTR, LONG, IWbemContext*,
             IEnumWbemClassObject**)
  VX_REFUSES(ExecNotificationQueryAsync, const BSTR, const BSTR, LONG, IWbemContext*,
             IWbemObjectSink*)
  VX_REFUSES(ExecMethod, const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
             IWbemClassObject**, IWbemCallResult**)
  VX_REFUSES(ExecMethodAsync, const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*,
             IWbemObjectSink*)

 protected:
  ~WbemServicesStub() = default;
};

class WbemClassObjectStub : public IWbemClassObject {
 public:
  VX_REFUSES(GetQualifierSet, IWbemQualifierSet**)
  VX_REFUSES(Get, LPCWSTR, LONG, VARIANT*, CIMTYPE*, LONG*)
  VX_REFUSES(Put, LPCWSTR, LONG, VARIANT*, CIMTYPE)
  VX_REFUSES(Delete, LPCWSTR)
  VX_REFUSES(GetNames, LPCWSTR, LONG, VARIANT*, SAFEARRAY**)
  VX_REFUSES(BeginEnumeration, LONG)
  VX_REFUSES(Next, LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*)
  VX_REFUSES(EndEnumeration)
  VX_REFUSES(GetPropertyQualifierSet, LPCWSTR, IWbemQualifierSet**)
  VX_REFUSES(Clone, IWbemClassObject**)
  VX_REFUSES(GetObjectText, LONG, BSTR*)
  VX_REFUSES(SpawnDerivedClass, LONG, IWbemClassObject**)
  VX_REFUSES(SpawnInstance, LONG, IWbemClassObject**)
  VX_REFUSES(CompareTo, LONG, IWbemClassObject*)
  VX_REFUSES(GetPropertyOrigin, LPCWSTR, BSTR*)
  VX_REFUSES(InheritsFrom, LPCWSTR)
  VX_REFUSES(GetMethod, LPCWSTR, LONG, IWbemClassObject**, IWbemClassObject**)
  VX_REFUSES(PutMethod, LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*)
  VX_REFUSES(DeleteMethod, LPCWSTR)
  VX_REFUSES(BeginMethodEnumeration, LONG)
  VX_REFUSES(NextMethod, LONG, BSTR*, IWbemClassObject**, IWbemClassObject**)
  VX_REFUSES(EndMethodEnumeration)
  VX_REFUSES(GetMethodQualifierSet, LPCWSTR, IWbemQualifierSet**)
  VX_REFUSES(GetMethodOrigin, LPCWSTR, BSTR*)

 protected:
  ~WbemClassObjectStub() = default;
};

class EnumWbemClassObjectStub : public IEnumWbemClassObject {
 public:
  VX_REFUSES(Reset)
  VX_REFUSES(Next, LONG, ULONG, IWbemClassObject**, ULONG*)
  VX_REFUSES(NextAsync, ULONG, IWbemObjectSink*)
  VX_REFUSES(Clone, IEnumWbemClassObject**)
  VX_REFUSES(Skip, LONG, ULONG)

 protected:
  ~EnumWbemClassObjectStub() = default;
};

#undef VX_REFUSES

}  // namespace Vx::Simulator
