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

// The machine-wide key-value store that several services share: one protected file, read before
// each change and written after it, with every access guarded by one named mutex. Cheap to create.
// Use on one thread. A process that dies during a change leaves either the old content or the new.
class CapDataStore {
 public:
  // The mutex that guards every access. Its name is documented, and other services use it too.
  static constexpr wchar_t kMutexName[] = L"18CC6446-1DB5-4D23-8F2B-441BA13883D6";

  // Receives the stored element, or null if there is none. Returns the new one, or nothing to leave
  // the file unchanged.
  using Change = std::function<std::optional<BsonElement>(const BsonElement* stored)>;

  // Creates the folder and an empty file if they are missing, and reads the file. Throws
  // std::runtime_error and system_mutex_exception.
  CapDataStore();
  CapDataStore(const CapDataStore&) = delete;
  CapDataStore& operator=(const CapDataStore&) = delete;
  ~CapDataStore() = default;

  // Returns the path of the file. Creates nothing. Throws std::runtime_error.
  static std::wstring PathOfFile();

  // Writes one top-level value and keeps all others. Returns true once it is on disk. If the write
  // fails, also removes the key from memory. Stores text as UTF-8. Throws system_mutex_exception.
  bool persist(std::string_view key, std::string_view value);
  bool persist(std::string_view key, const char* value);  // would otherwise convert to bool
  bool persist(std::string_view key, bool value);
  bool persist(std::string_view key, const BsonElement& value);

  // Writes a top-level boolean. Fails if `key` is that of the service's own document, if the stored
  // value is a document, or if the file cannot be read and so may contain one. Replaces a damaged
  // file and keeps a copy. Holds the mutex throughout. Returns true once the value is on disk.
  // Throws system_mutex_exception.
  bool persistUnlessDocument(std::string_view key, bool value);

  // Copies the top-level value under `key` to `out`. Returns false if it is missing, or if the file
  // cannot be read, which is logged. Throws system_mutex_exception.
  bool read(std::string_view key, BsonElement& out);

  // Like read, but returns nothing if the value is missing or of another kind.
  std::optional<std::int64_t> readInt64(std::string_view key);

  // Returns the top-level boolean under `key`, or `fallback` if there is none.
  bool readBool(std::string_view key, bool fallback);

  // Returns the embedded document under `key`, or an empty one if there is none.
  BsonDocument readDocument(std::string_view key);

  // Like readDocument, but returns the document as the constructor read it, which saves reading and
  // unsealing the file again. Reads the file if the constructor could not. Returns nothing if the
  // file exists but cannot be read, which is logged, or if the value under `key` is not a document.
  std::optional<BsonDocument> documentAtOpening(std::string_view key);

  // Returns the 32-bit number under `key`, or 0 if it is missing or of another kind. Throws
  // system_mutex_exception, and std::runtime_error if the file cannot be read.
  std::int32_t requireInt32(std::string_view key);

  // Returns the file's state as of the last read or change.
  StoreState State() const noexcept { return lastReading.state; }

  // Sets one member of the embedded document `documentName` and leaves its other members unchanged,
  // holding the mutex throughout. Returns true once the member is on disk. The service's own
  // document must be changed this way: writing an older copy of it would undo other writers'
  // changes. If the value of that name is not a document, replaces it and keeps a copy of the file.
  // Throws system_mutex_exception.
  bool mergeMember(std::string_view documentName, std::string_view member,
                   const BsonElement& value);

  // Like mergeMember, but `change` computes the new value from the stored one. `change` runs with
  // the mutex held and must not use a store. Its exceptions propagate after the mutex is released.
  // If `change` returns nothing, writes nothing and returns true if the file was readable or could
  // be replaced.
  bool updateMember(std::string_view documentName, std::string_view member, const Change& change);

 private:
  class Hold;

  static std::wstring expandPath(const std::wstring& path);
  // Expands the variables in `path` and creates its last folder.
  static std::wstring expandPathAndCreateDirectory(const std::wstring& path,
                                                   Platform::NewFolder access);
  static bool isNTFSJunction(const std::wstring& path);
  void initializeFile();

  // Call the functions below only with the mutex held.
  bool readFile();
  bool writeFile();
  void readForChange();
  void reportState() const;  // logs why the last read failed
  BsonDocument embeddedForChange(std::string_view documentName);
  bool store(std::string_view key, const BsonElement& value);

  std::wstring programDataRoot;
  std::wstring storeDirectory;
  std::uint32_t headerSize;                  // bytes
  [[maybe_unused]] std::uint32_t readMode;   // stream open mode: input and binary
  [[maybe_unused]] std::uint32_t writeMode;  // stream open mode: output, truncate and binary
  std::wstring storeName;
  std::wstring filePath;
  std::wstring storeId;  // 36 UTF-16 units, as in the header; empty before the first write
  SealedFile file;
  SealedFile::Reading lastReading;  // its document, if it has one, has been moved to `document`
  SystemMutex mutex;
  BsonDocument document;  // as of the last read or change
};

// Returns null on failure, which is logged.
std::unique_ptr<CapDataStore> TryOpenStore() noexcept;

}  // namespace Vx::Tessel::Server::Storage
