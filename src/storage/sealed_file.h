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

// What reading the store's file found.
enum class StoreState : std::uint8_t {
  Sound,         // read. A file without a document is empty
  Missing,       // there is no file
  Damaged,       // Windows or the document's format refuses the content
  OtherMachine,  // sealed on another machine
  Linked,        // a link in its place, or a file with a second name
  TooLarge,      // beyond what the store reads and writes
  NotOpened,     // any other failure, such as a process that has the file to itself
};

// Whether the file may be replaced: it has no content, or none that can ever be read.
bool MayReplace(StoreState state);

// The store's file: an id and a sealed document. Use while holding the store's mutex.
//
// A write makes a sibling of the file, flushes it and renames it over the file, so that a process
// that dies at any moment leaves the old content or the new. If another process keeps Windows from
// renaming, the file is written in place. The sibling then stays until the disk holds the content,
// and Read adopts it if the write was interrupted. Only an ordinary file that belongs to the system
// is adopted or deleted, because users may be able to create files in the folder. A file that is an
// id and nothing else adopts only a sibling with that id.
//
// Only content that is proved damaged is replaced, and a copy of it is kept.
class SealedFile {
 public:
  explicit SealedFile(std::wstring filePath) : path(std::move(filePath)) {}

  struct Reading {
    StoreState state = StoreState::NotOpened;
    Platform::ErrorCode error = 0;              // that Windows reported for the state
    std::wstring id = {};                       // 36 UTF-16 units, empty if the file has no header
    std::optional<BsonDocument> document = {};  // nothing if the file has none
    std::vector<std::byte> content = {};        // of the whole file, as far as it was read
    bool cutShort = false;                      // shorter than its header although it is not new
  };

  // Reads the file. If it has no document, first adopts the sibling of an interrupted write, and
  // logs that. NotOpened also if such a sibling cannot be read. Failures that pass are tried again,
  // up to 250 ms in the life of this object, in Write too.
  Reading Read();

  // The same without completing an interrupted write: changes nothing.
  Reading ReadOnce();

  // Replaces the file by this id and document. `before` is the last reading. Logs why it returns
  // false. The file then has its old content, or it is torn and the next reading adopts the sibling
  // with the new content.
  bool Write(const std::wstring& id, const BsonDocument& document, const Reading& before);

  // Deletes the siblings that interrupted writes left beside a file that has a document.
  void RemoveSiblings();

 private:
  struct InPlaceResult {
    Platform::ErrorCode error = 0;
    bool torn = false;  // neither the new content nor the old one could be written
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
