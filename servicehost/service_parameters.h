#pragma once

#include <string>
#include <vector>

namespace Vx::Host {

// How an installed service runs.
struct ServiceOptions {
  std::wstring name;
  std::wstring module = {};                // full path
  std::vector<std::wstring> allowed = {};  // SIDs whose accounts may use the pipe
  bool development = false;                // takes the controls of service_process.h
};

// Whether `name` may name a service, its pipe and its key: 1 to 64 letters, digits, dots, hyphens
// and underscores.
bool IsServiceName(const std::wstring& name);

// The options of the installed service of this name, a service name: values of its key Parameters,
// where the service manager deletes them with the service. What is missing or has another type is
// empty or false.
ServiceOptions ReadParameters(const std::wstring& name);

// Throws std::runtime_error if Windows refuses a value.
void WriteParameters(const ServiceOptions& options);

}  // namespace Vx::Host
