#pragma once

#include <string>
#include <vector>

namespace Vx::Hosting::ServiceHost {

struct ServiceOptions {
  std::wstring name;
  std::wstring module = {};                // full path
  std::vector<std::wstring> allowed = {};  // SIDs of accounts that may use the pipe
  bool development = false;                // accepts the controls in service_process.h
};

// Returns whether `name` is valid for a service, its pipe and its registry key: 1 to 64 letters,
// digits, dots, hyphens and underscores.
bool IsServiceName(const std::wstring& name);

// Returns the options of the installed service `name`, which must be a valid name, from its
// Parameters key. Windows deletes that key with the service. An option whose value is missing or of
// the wrong type is empty or false.
ServiceOptions ReadParameters(const std::wstring& name);

// Throws std::runtime_error if a value cannot be written.
void WriteParameters(const ServiceOptions& options);

// Registers the event source `name` in the "Application" log. `program` is the message file, from
// which Event Viewer takes the texts. Throws std::runtime_error on failure.
void AddEventSource(const std::wstring& name, const std::wstring& program);
// Does nothing if the source does not exist.
void RemoveEventSource(const std::wstring& name) noexcept;

}  // namespace Vx::Hosting::ServiceHost
