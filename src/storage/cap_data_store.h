#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "storage/bson_document.h"
#include "storage/system_mutex.h"

namespace Vx::Tessel::Server::Storage {

// The machine-wide key-value store that several services share: one protected file, read before and
// written after every change, each access under one named mutex. Cheap; made where it is needed.
class CapDataStore {
 public:
  // Makes the folder and an empty file where they are missing and reads the file. Throws
  // std::exception (std::runtime_error) and system_mutex_exception.
  CapDataStore();
  CapDataStore(const CapDataStore&) = delete;
  CapDataStore& operator=(const CapDataStore&) = delete;
  ~CapDataStore();

  // Writes one top-level value, keeping every other key; true when the file was written. A value
  // equal to the stored one is left as it is and answers true. Throws system_mutex_exception.
  bool persist(std::string_view key, std::wstring_view value);
  bool persist(std::string_view key, std::string_view value);
  bool persist(std::string_view key, const char* value);
  bool persist(std::string_view key, bool value);
  bool persist(std::string_view key, const BsonElement& value);

  // A copy of the top-level value under `key`; false when it is missing or the file cannot be read
  // (which is logged). Throws system_mutex_exception.
  bool read(std::string_view key, BsonElement& out);

  // A boolean under `key` of the top level; `fallback` when it is absent, of another kind or the
  // file cannot be read.
  bool readBool(std::string_view key, bool fallback);

  // Puts one member into the embedded document `documentName` without touching its other members,
  // read and written under one hold of the mutex. True when written. The way to change the
  // service's own document: an older copy of the whole would undo what others wrote in between.
  bool mergeMember(std::string_view documentName, std::string_view member,
                   const BsonElement& value);

  // Reads, changes and writes one member under one hold of the mutex: `change` sees the stored
  // element (null when absent) and answers the new one, or nothing to leave the file alone. It runs
  // with the mutex held and must not touch the store; what it throws passes through, unlocked. True
  // when the file holds the result. (signature completed by the owner)
};

}  // namespace Vx::Tessel::Server::Storage
