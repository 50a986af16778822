#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/files.h"
#include "storage/bson_document.h"
#include "storage/sealed_file.h"
#include "storage/system_mutex.h"

namespace Vx::Tessel::Server::Storage {

// The machine-wide key-value store that several services share: one protected file, read before and
// written after every change, each access under one named mutex. Cheap, and made where it is
// needed, for one thread. A process that dies in the middle of a change leaves the old content or
// the new.
class CapDataStore {
 public:
  // The mutex that every access holds. The name is documented, and other services use it too.
  static constexpr wchar_t kMutexName[] = L"18CC6446-1DB5-4D23-8F2B-441BA13883D6";

  // Receives the stored element, or null when there is none. Returns the new one, or nothing to
  // leave the file unchanged.
  using Change = std::function<std::optional<BsonElement>(const BsonElement* stored)>;

  // Makes the folder and an empty file where they are missing and reads the file. Throws
  // std::runtime_error and system_mutex_exception.
  CapDataStore();
  CapDataStore(const CapDataStore&) = delete;
  CapDataStore& operator=(const CapDataStore&) = delete;
  ~CapDataStore() = default;

  // Returns the path of the file. Makes nothing. Throws std::runtime_error.
  static std::wstring PathOfFile();

  // Writes one top-level value and keeps every other key. Returns true once the disk holds it. A
  // failed write removes the key from memory again. Text is stored as UTF-8. Throws
  // system_mutex_exception.
  bool persist(std::string_view key, std::string_view value);
  bool persist(std::string_view key, const char* value);  // would otherwise pass for a bool
  bool persist(std::string_view key, bool value);
  bool persist(std::string_view key, const BsonElement& value);

  // Writes a top-level boolean, unless the value under `key` is a document or the file may hold one
  // but cannot be read. Replaces a damaged file and keeps a copy. Looks and writes under one hold
  // of the mutex. Returns true once the disk holds it. Throws system_mutex_exception.
  bool persistUnlessDocument(std::string_view key, bool value);

  // A copy of the top-level value under `key`; false when it is missing or the file cannot be read
  // (which is logged). Throws system_mutex_exception.
  bool read(std::string_view key, BsonElement& out);

  // The same for one kind of value; nothing also when it is of another kind.
  std::optional<std::int64_t> readInt64(std::string_view key);

  // A boolean under `key` of the top level; `fallback` when there is none.
  bool readBool(std::string_view key, bool fallback);

  // The embedded document `key`; an empty one when there is none.
  BsonDocument readDocument(std::string_view key);

  // The same as the constructor read it, which saves reading and unsealing the file again. Reads it
  // if the constructor could not. Nothing if the file is there but cannot be read, which is logged,
  // or if the value under `key` is not a document.
  std::optional<BsonDocument> documentAtOpening(std::string_view key);

  // The 32-bit number under `key`; 0 when it is missing or of another kind. Throws
  // std::runtime_error when the file cannot be read.
  std::int32_t requireInt32(std::string_view key);

  // What the last reading or change found.
  StoreState State() const noexcept { return lastReading.state; }

  // Puts one member into the embedded document `documentName` without touching its other members,
  // read and written under one hold of the mutex. True when the file holds it. The way to change
  // the service's own document: an older copy of the whole would undo what others wrote in between.
  // Replaces a value of that name that is not a document, and keeps a copy of the file. Throws
  // system_mutex_exception.
  bool mergeMember(std::string_view documentName, std::string_view member,
                   const BsonElement& value);

  // Like mergeMember, with a value that `change` makes of the stored one. It runs with the mutex
  // held and must not touch a store; what it throws passes through, unlocked. True also when it
  // returned nothing.
  bool updateMember(std::string_view documentName, std::string_view member, const Change& change);

 private:
  class Hold;

  static std::wstring expandPath(const std::wstring& path);
  // `path` with its variables replaced, and its last level made.
  static std::wstring expandPathAndCreateDirectory(const std::wstring& path,
                                                   Platform::NewFolder access);
  static bool isNTFSJunction(const std::wstring& path);
  void initializeFile();

  // The steps below need the mutex.
  bool readFile();
  bool writeFile();
  void readForChange();
  void reportState() const;  // why the last reading failed
  BsonDocument embeddedForChange(std::string_view documentName);
  bool store(std::string_view key, const BsonElement& value);

  std::wstring programDataRoot;
  std::wstring storeDirectory;
  std::uint32_t headerSize;                  // bytes
  [[maybe_unused]] std::uint32_t readMode;   // stream open mode: input and binary
  [[maybe_unused]] std::uint32_t writeMode;  // stream open mode: output, truncate and binary
  std::wstring storeName;
  std::wstring filePath;
  std::wstring storeId;  // 36 UTF-16 units as in the header; empty before the first write
  SealedFile file;
  SealedFile::Reading lastReading;  // its document is moved to `document`
  bool hasDocument = false;         // the file had a document at the last reading
  SystemMutex mutex;
  BsonDocument document;  // as of the last reading or change
};

// A store. Null where none can be made, which is logged.
std::unique_ptr<CapDataStore> TryOpenStore() noexcept;

}  // namespace Vx::Tessel::Server::Storage
