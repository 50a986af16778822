// A host compiled for Microsoft's ABI, which orders virtual functions, passes classes by value and
// destroys them in its own way. Uses no C++ runtime and no C library.
#include <stddef.h>
#include <stdint.h>

#include "host/client_exemption.h"
#include "host/completion_callback.h"
#include "host/uwp_package_model.h"
#include "host/vx_service.h"

namespace Contract = Vx::Tessel::Server::Services;

extern "C" {
__declspec(dllimport) void ExitProcess(unsigned code);
__declspec(dllimport) void* GetProcessHeap();
__declspec(dllimport) void* GetStdHandle(unsigned which);
__declspec(dllimport) void* HeapAlloc(void* heap, unsigned flags, size_t size);
__declspec(dllimport) int HeapFree(void* heap, unsigned flags, void* memory);
__declspec(dllimport) int WriteFile(void* file, const void* data, unsigned size, unsigned* written,
                                    void* overlapped);
int _fltused = 0;

// Functions that the compiler calls implicitly.
void* memset(void* memory, int value, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    static_cast<volatile unsigned char*>(memory)[i] = static_cast<unsigned char>(value);
  }
  return memory;
}
void* memcpy(void* to, const void* from, size_t size) {
  for (size_t i = 0; i < size; ++i) {
    static_cast<volatile unsigned char*>(to)[i] = static_cast<const unsigned char*>(from)[i];
  }
  return to;
}
}

void* operator new(size_t size) {
  return HeapAlloc(GetProcessHeap(), 0, size);
}
void operator delete(void* memory) noexcept {
  if (memory != nullptr) HeapFree(GetProcessHeap(), 0, memory);
}
void operator delete(void* memory, size_t) noexcept {
  operator delete(memory);
}

namespace {

constexpr unsigned kStandardOutput = static_cast<unsigned>(-11);

void Print(const char* text) {
  unsigned size = 0;
  while (text[size] != '\0') ++size;
  unsigned written = 0;
  WriteFile(GetStdHandle(kStandardOutput), text, size, &written, nullptr);
}

int failures = 0;
#define CHECK(condition)                 \
  do {                                   \
    if (!(condition)) {                  \
      ++failures;                        \
      Print("failed: " #condition "\n"); \
    }                                    \
  } while (0)

bool Same(const wchar_t* a, const wchar_t* b) {
  while (*a != L'\0' && *a == *b) {
    ++a;
    ++b;
  }
  return *a == *b;
}

// The host's standard function object in Microsoft's layout: 56 bytes for a small callable, then a
// pointer to it. It is passed as the address of a copy that the callee destroys.
struct Callable {
  virtual Callable* Copy(void* where) const = 0;
  virtual Callable* Move(void* where) = 0;
  virtual void Call() = 0;
  virtual const void* Type() const = 0;
  virtual void DeleteThis(bool outsideTheObject) noexcept = 0;
  virtual const void* Get() const = 0;
};

int alive = 0;
int calls = 0;
int inPlace = 0;
int onHeap = 0;

template <size_t Size>
struct Counted final : Callable {
  Counted() { ++alive; }
  Counted(const Counted& other) : Callable(other) { ++alive; }
  ~Counted() { --alive; }
  Callable* Copy(void* where) const override {
    return where != nullptr ? new (where) Counted(*this) : new Counted(*this);
  }
  Callable* Move(void* where) override { return Copy(where); }
  void Call() override { ++calls; }
  const void* Type() const override { return nullptr; }
  void DeleteThis(bool outsideTheObject) noexcept override {
    if (outsideTheObject) {
      ++onHeap;
      delete this;
    } else {
      ++inPlace;
      this->~Counted();
    }
  }
  const void* Get() const override { return payload; }
  void* operator new(size_t size) { return ::operator new(size); }
  void* operator new(size_t, void* where) { return where; }
  void operator delete(void* memory) { ::operator delete(memory); }

  unsigned char payload[Size];
};

class Function {
 public:
  Function() = default;
  Function(const Function& other) {
    if (other.held == nullptr) return;
    held = other.Inside() ? other.held->Copy(storage) : other.held->Copy(nullptr);
  }
  Function& operator=(const Function&) = delete;
  ~Function() {
    if (held != nullptr) held->DeleteThis(!Inside());
  }
  template <typename Body>
  static Function Of(bool small) {
    Function function;
    function.held = small ? new (static_cast<void*>(function.storage)) Body : new Body;
    return function;
  }

 private:
  bool Inside() const { return static_cast<const void*>(held) == storage; }

  alignas(8) unsigned char storage[56] = {};
  Callable* held = nullptr;
};
static_assert(sizeof(Function) == 64);
static_assert(sizeof(Function) == sizeof(Contract::CompletionCallback));

// The abstract service class as the host's own header declares it.
class HostService {
 public:
  virtual ~HostService() = default;
  virtual uint32_t CreateClientContext(const wchar_t* clientId, void** context) = 0;
  virtual uint32_t ReleaseClientContext(void** context) = 0;
  virtual uint32_t ExecuteCommand(void* context, uint32_t functionId, const wchar_t* request,
                                  wchar_t** response, Function callback) = 0;
  virtual void FreeResponse(void* response) = 0;
  virtual void Start() = 0;
  virtual void PowerEvent(uint32_t type) = 0;
  virtual void Reserved7() = 0;
  virtual bool OobeEvent() = 0;
  virtual void SessionChange(uint32_t code) = 0;
  virtual void Reserved10() = 0;
};

void CommandsRunAndDestroyTheirCallbackOnce(HostService& service) {
  void* context = nullptr;
  CHECK(service.CreateClientContext(L"client", &context) == 0);
  struct {
    Function callback;
    int inPlace;
    int onHeap;
  } cases[] = {{Function(), 0, 0},
               {Function::Of<Counted<16>>(true), 1, 0},
               {Function::Of<Counted<200>>(false), 0, 1}};
  for (auto& c : cases) {
    const int before = alive;
    inPlace = onHeap = calls = 0;
    wchar_t* response = nullptr;
    CHECK(service.ExecuteCommand(context, 22, L"{}", &response, c.callback) == 0);
    CHECK(response != nullptr &&
          Same(response, L"{\"result\":{\"getVersion\":\"" VX_VERSION_TEXT L"\"}}"));
    service.FreeResponse(response);
    response = nullptr;
    CHECK(service.ExecuteCommand(context, 23, L"{}", &response, c.callback) == 0x20000001);
    CHECK(response != nullptr && Same(response, L"{}"));
    service.FreeResponse(response);
    response = nullptr;
    CHECK(service.ExecuteCommand(context, 13, L"{\"launched\":1}", &response, c.callback) ==
          0x20000002);
    service.FreeResponse(response);
    CHECK(service.ExecuteCommand(context, 22, L"", &response, c.callback) == 0x20000003);
    CHECK(response == nullptr);
    service.FreeResponse(response);
    CHECK(service.ExecuteCommand(context, 22, nullptr, &response, c.callback) == 0x20000002);
    CHECK(service.ExecuteCommand(nullptr, 22, L"{}", &response, c.callback) == 0x20000002);
    CHECK(service.ExecuteCommand(context, 22, L"{}", nullptr, c.callback) == 0x20000002);
    CHECK(alive == before && inPlace == 7 * c.inPlace && onHeap == 7 * c.onHeap && calls == 0);
  }
  CHECK(service.ReleaseClientContext(&context) == 0);
}

void TheOtherFactoriesWork() {
  auto* packages = CreateUwpPackageModel();
  CHECK(packages->FindPackageFullName(nullptr, nullptr, nullptr) < 0);
  CHECK(packages->LastError()[0] != L'\0');
  CHECK(packages->Destroy(1) == packages);

  auto* exemption = CreateClientExemption();
  const wchar_t* const veilo = L"7C3B9E40.VxVeilo_r4x2m8kq7tn3b";
  wchar_t name[] = L"HotKeyServiceUWP";
  int32_t exempt = -1;
  CHECK(exemption->IsUwpExempt(veilo, 2, 0, &exempt) == 0 && exempt == 1);
  CHECK(exemption->IsWin32Exempt(name, 8, 10, &exempt) == 0 && exempt == 0);
  CHECK(Same(name, L"hotkeyserviceuwp"));
  CHECK(exemption->IsUwpExempt(nullptr, 0, 0, &exempt) == 87);
  CHECK(exemption->IsWin32Exempt(nullptr, 0, 0, &exempt) == 87);
  CHECK(exemption->IsUwpExempt(veilo, 0, 0, nullptr) == 87);
  CHECK(exemption->Destroy(1) == exemption);
}

}  // namespace

extern "C" void Main() {
  auto* service = reinterpret_cast<HostService*>(VxCreateService());
  CHECK(service != nullptr);
  if (service != nullptr) {
    CommandsRunAndDestroyTheirCallbackOnce(*service);
    delete service;
  }
  TheOtherFactoriesWork();
  Print(failures == 0 ? "passed\n" : "some checks failed\n");
  ExitProcess(failures == 0 ? 0 : 1);
}
