// Drives the module through its single export and numbered slots, as a host does. Plain C without
// this project's headers, so that no class declaration hides a change to the contract.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include <windows.h>

enum {
  kDestroy,
  kCreateClientContext,
  kReleaseClientContext,
  kExecuteCommand,
  kFreeResponse,
  kStart,
  kPowerEvent,
  kReserved7,
  kOobeEvent,
  kSessionChange,
  kReserved10
};

typedef struct Service {
  void** slots;
} Service;
typedef Service* (*Factory)(void);
typedef void* (*Destroy)(Service*, unsigned);
typedef uint32_t (*CreateContext)(Service*, const wchar_t*, void**);
typedef uint32_t (*ReleaseContext)(Service*, void**);
typedef uint32_t (*Execute)(Service*, void*, uint32_t, const wchar_t*, wchar_t**, void*);
typedef void (*Notify)(Service*, uint32_t);
typedef unsigned char (*Ask)(Service*);  // a C++ bool

static int failures;
#define CHECK(condition)                                     \
  do {                                                       \
    if (!(condition)) {                                      \
      ++failures;                                            \
      printf("line %d: failed: %s\n", __LINE__, #condition); \
    }                                                        \
  } while (0)

static Factory factory;

static Service* Make(void) {
  Service* service = factory();
  if (service != NULL) return service;
  printf("the factory makes no service\n");
  exit(1);
}

static void Unmake(Service* service) {
  CHECK(((Destroy)service->slots[kDestroy])(service, 1) == (void*)service);
}

static void SlotZeroFreesTheObjectIfAsked(void) {
  for (unsigned flags = 0; flags <= 1; ++flags) {
    Service* service = Make();
    CHECK(((Destroy)service->slots[kDestroy])(service, flags) == (void*)service);
    CHECK(HeapValidate((HANDLE)_get_heap_handle(), 0, service) == (flags == 0));
  }
}

static void* Context(Service* service, const wchar_t* clientId) {
  void* context = NULL;
  CHECK(((CreateContext)service->slots[kCreateClientContext])(service, clientId, &context) == 0);
  return context;
}

static void Release(Service* service, void* context) {
  void* copy = context;
  CHECK(((ReleaseContext)service->slots[kReleaseClientContext])(service, &copy) == 0);
  CHECK(copy == context);
}

static void ContextsCarryACopyOfTheCallersIdentity(void) {
  wchar_t longest[65] = {0};
  Service* service = Make();
  wmemset(longest, L'x', 64);
  const struct {
    const wchar_t* given;
    const wchar_t* kept;
  } cases[] = {{L"client", L"client"}, {L"", L""}, {NULL, L""}, {longest, longest}};
  for (size_t i = 0; i < sizeof cases / sizeof *cases; ++i) {
    wchar_t** context = Context(service, cases[i].given);
    CHECK(context != NULL && wcscmp(*context, cases[i].kept) == 0 && *context != cases[i].given);
    Release(service, context);
  }
  CHECK(((CreateContext)service->slots[kCreateClientContext])(service, L"x", NULL) == 0);
  CHECK(((ReleaseContext)service->slots[kReleaseClientContext])(service, NULL) == 0);
  Release(service, NULL);
  Unmake(service);
}

static void NotificationsAreTakenInAnyState(void) {
  Service* service = Make();
  static const struct {
    int slot;
    uint32_t event;
  } kCases[] = {{kPowerEvent, 10},   {kReserved7, 0},     {kSessionChange, 5},
                {kSessionChange, 6}, {kSessionChange, 7}, {kReserved10, 0},
                {kStart, 0},         {kStart, 0},         {kPowerEvent, 18}};
  for (size_t i = 0; i < sizeof kCases / sizeof *kCases; ++i) {
    ((Notify)service->slots[kCases[i].slot])(service, kCases[i].event);
  }
  Unmake(service);
}

// The host's callable: 64 bytes, ending in a pointer to the held object.
typedef struct Callback {
  char storage[56];
  void* const** held;
} Callback;

static HANDLE inCommand, mayReturn;
static DWORD returned;

static void HoldTheCommand(void* held, char outsideTheObject) {
  (void)held;
  (void)outsideTheObject;
  SetEvent(inCommand);
  returned = WaitForSingleObject(mayReturn, 10000);
}

static DWORD WINAPI RunHeldCommand(void* service) {
  static void* const kTable[] = {NULL, NULL, NULL, NULL, (void*)&HoldTheCommand};
  void* const* object = kTable;
  Callback callback = {{0}, &object};
  void* context = Context(service, L"client");
  wchar_t* response = NULL;
  // The context and response leak, because only the service, destroyed earlier, could free them.
  return ((Execute)((Service*)service)->slots[kExecuteCommand])(
      service, context, 13, L"{\"launched\":1}", &response, &callback);
}

static void TheEndDoesNotWaitForACommand(void) {
  DWORD result = 0;
  Service* service = Make();
  inCommand = CreateEventW(NULL, TRUE, FALSE, NULL);
  mayReturn = CreateEventW(NULL, TRUE, FALSE, NULL);
  HANDLE command = CreateThread(NULL, 0, &RunHeldCommand, service, 0, NULL);
  CHECK(WaitForSingleObject(inCommand, 10000) == WAIT_OBJECT_0);
  Unmake(service);
  CHECK(WaitForSingleObject(command, 0) == WAIT_TIMEOUT);
  SetEvent(mayReturn);
  CHECK(WaitForSingleObject(command, 10000) == WAIT_OBJECT_0 && returned == WAIT_OBJECT_0);
  CHECK(GetExitCodeThread(command, &result) && result == 0x20000002);
  CloseHandle(command);
  CloseHandle(mayReturn);
  CloseHandle(inCommand);
}

static int IsMapped(const void* address) {
  MEMORY_BASIC_INFORMATION place;
  return VirtualQuery(address, &place, sizeof place) != 0 && place.State == MEM_COMMIT;
}

// A service's thread keeps the module loaded until the thread ends. A service object does not.
static void AnObjectDoesNotKeepTheModule(HMODULE module) {
  const Service* const service = Make();
  const void* const slot0 = service->slots[kDestroy];
  CHECK(FreeLibrary(module));
  for (int i = 0; i < 1000 && IsMapped(slot0); ++i) Sleep(10);
  CHECK(!IsMapped(slot0));
}

static unsigned char SetupIsOver(Service* service) {
  return ((Ask)service->slots[kOobeEvent])(service);
}

// No app accepts the message here, so it stays pending. Without a store, it can never be sent. Slot
// 0 does not cancel the launch that the first call schedules for an hour later.
static void TheEndOfSetupReturnsWhetherNothingIsLeftToDo(HMODULE module) {
  wchar_t store[MAX_PATH], program[MAX_PATH];
  Service* service = Make();
  const void* const slot0 = service->slots[kDestroy];
  CHECK(SetupIsOver(service) == 0);
  CHECK(SetupIsOver(service) == 0);
  GetEnvironmentVariableW(L"ProgramData", store, MAX_PATH);
  GetModuleFileNameW(NULL, program, MAX_PATH);
  SetEnvironmentVariableW(L"ProgramData", program);
  CHECK(SetupIsOver(service) == 1);
  SetEnvironmentVariableW(L"ProgramData", store);
  Unmake(service);
  CHECK(FreeLibrary(module));
  Sleep(200);
  CHECK(IsMapped(slot0));
}

static HMODULE LoadBesideTests(void) {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(NULL, path, MAX_PATH);
  *wcsrchr(path, L'\\') = 0;
  wcscpy(wcsrchr(path, L'\\'), L"\\bin\\OrvaneService.dll");
  const HMODULE module = LoadLibraryW(path);
  factory = (Factory)(void*)GetProcAddress(module, "VxCreateService");
  if (factory == NULL) {
    printf("%ls cannot be loaded, error %lu: build it with scripts/build\n", path,
           (unsigned long)GetLastError());
    exit(1);
  }
  return module;
}

int main(void) {
  HMODULE module = LoadBesideTests();
  SlotZeroFreesTheObjectIfAsked();
  ContextsCarryACopyOfTheCallersIdentity();
  TheEndDoesNotWaitForACommand();
  AnObjectDoesNotKeepTheModule(module);
  // On Windows, messages to apps may keep the module loaded.
  module = LoadBesideTests();
  NotificationsAreTakenInAnyState();
  TheEndOfSetupReturnsWhetherNothingIsLeftToDo(module);
  printf(failures == 0 ? "passed\n" : "%d checks failed\n", failures);
  return failures != 0;
}
