#pragma once

#include <stdint.h>
#include <stdlib.h>

namespace Vx::Tessel::Server::Services {

// The caller's identity, made by slot 1 and given back to slot 2.
struct ClientContext {
  wchar_t* clientId;  // NUL-terminated, at most 64 characters, owned by the record
};

// The host's completion callback: a callable passed by value. The host's compiler passes such an
// object as the address of a copy that the called side destroys, see completion_callback.h.
struct CompletionCallback;

// The abstract service class of the host, which is a closed program built with another compiler:
// the contract is this table of slots, in this order, each exactly one entry.
//
// Slot 0 is one ordinary virtual function where the host's compiler has its deleting destructor. A
// C++ virtual destructor would take two entries here and shift every slot behind it. All arguments
// are scalars or pointers, so that both compilers pass them alike.
class VxService {
 public:
  VxService() = default;
  VxService(const VxService&) = delete;
  VxService& operator=(const VxService&) = delete;

  // Slot 0. Destroys the object; bit 0 of `flags` frees its memory too. Returns the object's
  // address.
  virtual void* Destroy(unsigned flags) = 0;

  // Slot 1. Makes the context of a caller; `clientId` has at most 64 characters.
  virtual uint32_t CreateClientContext(const wchar_t* clientId, ClientContext** context) = 0;

  // Slot 2. Frees a context; the caller's pointer is not cleared.
  virtual uint32_t ReleaseClientContext(ClientContext** context) = 0;

  // Slot 3. Runs command `functionId`. `request` is NUL-terminated UTF-16 JSON; `*response`
  // receives the answer in a buffer that slot 4 frees.
  virtual uint32_t ExecuteCommand(ClientContext* context, uint32_t functionId,
                                  const wchar_t* request, wchar_t** response,
                                  CompletionCallback* callback) = 0;

  // Slot 4. Frees a response; null is allowed.
  virtual void FreeResponse(void* response) { free(response); }

  // Slot 5. Starts the background work.
  virtual void Start() {}

  // Slot 6. A power broadcast (PBT_ code) that the host received.
  virtual void power_event_task(uint32_t eventType) { static_cast<void>(eventType); }

  // Slot 7. Reserved.
  virtual void Reserved7() {}

  // Slot 8. First-run set-up is over; true means that nothing is left to do.
  virtual bool oobe_event_task() { return true; }

  // Slot 9. A session change (WTS_SESSION_ code) that the host received.
  virtual void OnSessionChange(uint32_t code) { static_cast<void>(code); }

  // Slot 10. Reserved.
  virtual void Reserved10() {}

 protected:
  ~VxService() = default;
};

// The module's one factory, exported under this name. Each call makes a service of its own, null
// when there is no memory; the host makes one. It is freed through slot 0.
using CreateServiceFunction = VxService* (*)();
inline constexpr char kCreateServiceExport[] = "VxCreateService";

}  // namespace Vx::Tessel::Server::Services

extern "C" Vx::Tessel::Server::Services::VxService* VxCreateService() noexcept;
