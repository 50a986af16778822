#pragma once

// The contract of vx_service.h for a host in C, or in any language that can call C: a pointer to a
// table of functions. docs/host.md describes each function and the threads that may call it.

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// The caller's identity, created by slot 1 and freed by slot 2.
typedef struct VxClientContext {
  wchar_t* clientId;  // NUL-terminated, at most 64 characters, owned by this struct
} VxClientContext;

// The host's completion callback. Slot 3 destroys it through the fifth entry of `held->table` and
// never calls it. May be null.
typedef struct VxHeldCallable {
  void* const* table;
} VxHeldCallable;
typedef struct VxCompletionCallback {
  unsigned char storage[56];
  VxHeldCallable* held;
} VxCompletionCallback;

typedef struct VxServiceObject VxServiceObject;

// The slots in order. The comment before each group describes its functions.
typedef struct VxServiceTable {
  // Slot 0. Destroys the object and, if bit 0 of `flags` is set, frees it. Returns its address.
  void* (*Destroy)(VxServiceObject* self, unsigned flags);

  // Slots 1 to 3. Return result codes, 0 for success. `request` is NUL-terminated UTF-16 JSON.
  uint32_t (*CreateClientContext)(VxServiceObject* self, const wchar_t* clientId,
                                  VxClientContext** context);
  uint32_t (*ReleaseClientContext)(VxServiceObject* self, VxClientContext** context);
  uint32_t (*ExecuteCommand)(VxServiceObject* self, VxClientContext* context, uint32_t functionId,
                             const wchar_t* request, wchar_t** response,
                             VxCompletionCallback* callback);

  // Slot 4. Frees a response that slot 3 returned.
  void (*FreeResponse)(VxServiceObject* self, void* response);

  // Slot 5. Starts the background work and returns.
  void (*Start)(VxServiceObject* self);

  // Slot 6. Handles a power broadcast (PBT_ code).
  void (*PowerEventTask)(VxServiceObject* self, uint32_t eventType);

  void (*Reserved7)(VxServiceObject* self);

  // Slot 8. Call when first-run setup is complete. Returns true if nothing is left to do.
  bool (*OobeEventTask)(VxServiceObject* self);

  // Slot 9. Handles a session change (WTS_SESSION_ code).
  void (*OnSessionChange)(VxServiceObject* self, uint32_t code);

  void (*Reserved10)(VxServiceObject* self);
} VxServiceTable;

struct VxServiceObject {
  const VxServiceTable* table;
};

// The factory and its export name. Returns null if out of memory. Slot 0 frees the object.
typedef VxServiceObject* (*VxCreateServiceFunction)(void);
#define VX_CREATE_SERVICE_EXPORT "VxCreateService"

#ifdef __cplusplus
}
#endif
