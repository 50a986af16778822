#pragma once

#include <stdint.h>
#include <stdlib.h>

namespace Vx::Tessel::Server::Services {

// The caller's identity, created by slot 1 and freed by slot 2.
struct ClientContext {
  wchar_t* clientId;  // NUL-terminated, at most 64 characters, owned by this struct
};

// The host's completion callback, a callable passed by value: the host's compiler passes the
// address of a copy, which the callee destroys (see completion_callback.h).
struct CompletionCallback;

// The host's abstract service class. The host is a closed-source program built with another
// compiler, so the contract is this vtable: one slot per function, in this order.
//
// Slot 0 is an ordinary virtual function in place of the other compiler's deleting destructor,
// because a C++ virtual destructor would take two entries here and shift all later slots. All
// arguments are scalars or pointers, which both compilers pass the same way.
//
// The calling thread must not be impersonating: slots 3, 6, 8 and 9 act as the console user and
// leave the thread with its process's identity. A debug build of the module terminates the process
// if an impersonating thread calls slot 3, 5, 6, 8 or 9.
class VxService {
 public:
  VxService() = default;
  VxService(const VxService&) = delete;
  VxService& operator=(const VxService&) = delete;

  // Slot 0. Destroys the object and, if bit 0 of `flags` is set, frees it. Returns its address.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. Creates a caller's context. `clientId` has at most 64 characters.
  virtual uint32_t CreateClientContext(const wchar_t* clientId, ClientContext** context) = 0;

  // Slot 2. Frees a context. Does not clear the caller's pointer.
  virtual uint32_t ReleaseClientContext(ClientContext** context) = 0;

  // Slot 3. Runs command `functionId`. `request` is NUL-terminated UTF-16 JSON. `*response`
  // receives a buffer with the response, which slot 4 frees.
  virtual uint32_t ExecuteCommand(ClientContext* context, uint32_t functionId,
                                  const wchar_t* request, wchar_t** response,
                                  CompletionCallback* callback) = 0;

  // Slot 4. Frees a response. Null is allowed.
  virtual void FreeResponse(void* response) { free(response); }

  // Slot 5. Starts the background work and returns.
  virtual void Start() {}

  // Slot 6. Handles a power broadcast (PBT_ code) that the host received.
  virtual void power_event_task(uint32_t eventType) { static_cast<void>(eventType); }

  // Slot 7. Reserved.
  virtual void Reserved7() {}

  // Slot 8. Call when first-run setup is complete. Returns true if nothing is left to do.
  virtual bool oobe_event_task() { return true; }

  // Slot 9. Handles a session change (WTS_SESSION_ code) that the host received.
  virtual void OnSessionChange(uint32_t code) { static_cast<void>(code); }

  // Slot 10. Reserved.
  virtual void Reserved10() {}

 protected:
  ~VxService() = default;
};

// The exported factory. Each call returns a separate service, or null if out of memory. The host
// creates only one. Slot 0 frees it.
using CreateServiceFunction = VxService* (*)();
inline constexpr char kCreateServiceExport[] = "VxCreateService";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::VxService* VxCreateService() noexcept;
