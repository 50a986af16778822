#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "platform/result.h"
#include "storage/bson_document.h"

namespace Vx::Tessel::Server::Storage {

// The result of reading the store's file.
enum class StoreState : std::uint8_t {
  Sound,         // read; it may have no document
  Missing,       // there is no file
  Damaged,       // the content cannot be unsealed or decoded
  OtherMachine,  // sealed on another machine
  Linked,        // a reparse point, or a file with several hard links
  TooLarge,      // exceeds the size that the store reads and writes
  NotOpened,     // any other failure, such as another process's exclusive access
};

// Returns whether the file may be replaced, because it was read, is missing or can never be read.
bool MayReplace(StoreState state);

// The store's file: an id and a sealed document. Use only while holding the store's mutex.
//
// A write creates a sibling of the file, flushes it and renames it over the file, so that a process
// that dies at any moment leaves either the old or the new content. If another process prevents the
// rename, the file is written in place. The sibling then stays until the content has been flushed
// to disk, and Read adopts it if the write was interrupted. Only an ordinary file with a trusted
// owner is adopted or deleted, because users may be able to create files in the folder. If the file
// contains only an id, only a sibling with that id is adopted.
//
// Unreadable content is replaced only if this machine can never read it, and a copy of it is kept.
class SealedFile {
 public:
  explicit SealedFile(std::wstring filePath) : path(std::move(filePath)) {}

  struct Reading {
    StoreState state = StoreState::NotOpened;
    Platform::ErrorCode error = 0;              // the Windows error that caused the state
    std::wstring id = {};                       // 36 UTF-16 units, empty if the file has no header
    std::optional<BsonDocument> document = {};  // nothing if the file has none
    std::vector<std::byte> content = {};        // the whole file, or empty if it could not be read
    bool cutShort = false;                      // shorter than its header, but not newly created
  };

  // Reads the file. If it is missing, damaged or has no document, first adopts the sibling left by
  // an interrupted write, which is logged. Returns NotOpened if a sibling cannot be read. Read and
  // Write retry temporary failures for up to 250 ms in total.
  Reading Read();

  // Like Read, but changes nothing: does not complete an interrupted write.
  Reading ReadOnce();

  // Replaces the file with this id and document. `before` is the last reading. Returns false on
  // failure, which is logged. The file then either has its old content, or it is torn and the next
  // Read adopts the sibling with the new content.
  bool Write(const std::wstring& id, const BsonDocument& document, const Reading& before);

  // Deletes the siblings left by interrupted writes. Call only if the file has a document.
  void RemoveSiblings();

 private:
  struct InPlaceResult {
    Platform::ErrorCode error = 0;
    bool torn = false;  // neither the new nor the old content could be written
  };

  Reading Unseal(std::vector<std::byte> content);
  Reading Adopt(Reading reading);
  bool KeepCopy(std::span<const std::byte> content) const;
  Platform::ErrorCode SealAndReplace(const std::wstring& id, const BsonDocument& document);
  Platform::ErrorCode Replace(std::span<const std::byte> content);

  Platform::ErrorCode PutInPlace(const std::wstring& sibling, std::span<const std::byte> content);
  InPlaceResult WriteInPlace(std::span<const std::byte> content);

  template <typename Attempt>
  auto Patiently(const Attempt& attempt);
  template <typename Rename>
  Platform::ErrorCode PatientRename(const Rename& rename);

  std::wstring path;
  std::chrono::milliseconds patience{250};
};

}  // namespace Vx::Tessel::Server::Storage
