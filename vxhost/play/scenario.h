#pragma once

#include <string>

#include "json/json_text.h"
#include "storage/bson_document.h"
#include "vxhost/play/scenario_check.h"

namespace Vx::Hosting::Tool {

struct Harness;

// A scenario: a JSON document {"store": ..., "steps": [...]}, described in docs/vxhost.md.
class Scenario {
 public:
  // Reads and checks the file. Throws std::runtime_error if the file has faults (the message lists
  // each with its line) or if the file that "store" names cannot be used.
  Scenario(const std::wstring& path, Definitions definitions, const ModuleOptions& module);

  // Writes the values of "store", or of the file that it names, to the current machine's store.
  // Call before creating the service.
  void Prepare() const;

  // Plays every step, even after an expectation is not met. Returns whether all were met. Throws
  // std::runtime_error if a step cannot be carried out.
  bool Play(Harness& harness) const;

 private:
  Json::WideDocument document;
  LineIndex lines;
  Definitions definitions;
  Tessel::Server::Storage::BsonDocument storeFile;  // empty unless "store" names a file
};

}  // namespace Vx::Hosting::Tool
