#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "storage/bson_value.h"

namespace Vx::Tessel::Server::Storage {

// A BSON document: an ordered list of keys and values. Keeps its encoding and walks it in place. A
// change rewrites only the changed member, so that other services' values stay identical, byte for
// byte, whatever they contain.
//
// A document from another service may repeat a key. The first one wins, and the others stay until
// Set or Erase changes that key. Copies are deep. Use from one thread at a time.
class BsonDocument {
 public:
  // Keys written by other services need not be UTF-8.
  struct Member {
    std::string_view key;
    BsonView value;
  };

  // Walks the members in order. Valid until the document changes.
  class Iterator {
   public:
    Member operator*() const;
    Iterator& operator++();
    bool operator==(const Iterator& other) const { return rest.data() == other.rest.data(); }

   private:
    friend class BsonDocument;

    explicit Iterator(std::span<const std::byte> members) : rest(members) {}
    std::span<const std::byte> Whole() const;  // the bytes of the member

    std::span<const std::byte> rest;  // this member and those that follow
  };

  BsonDocument();
  BsonDocument(const BsonDocument& other) : BsonDocument(other.Encoded()) {}
  // A moved-from document may only be assigned to or destroyed.
  BsonDocument(BsonDocument&& other) noexcept = default;
  BsonDocument& operator=(const BsonDocument& other) { return *this = BsonDocument(other); }
  BsonDocument& operator=(BsonDocument&& other) noexcept = default;
  ~BsonDocument() = default;

  // Decodes the document that occupies all of `encoded`. Returns nothing if it cannot be split into
  // members: a length is wrong, the terminator of the document or of a key is missing, or a kind is
  // unknown. The content of a value is checked when a getter reads it.
  static std::optional<BsonDocument> Decode(std::span<const std::byte> encoded);

  // Returns the encoding, which is valid until the next change.
  std::span<const std::byte> Encoded() const { return {bytes.get(), used}; }

  Iterator begin() const;
  Iterator end() const;

  std::size_t Size() const;
  bool Empty() const { return begin() == end(); }

  // Returns the value of the first member called `key`.
  std::optional<BsonView> Find(std::string_view key) const;

  // Replaces the value of the first member called `key` and removes the others, or appends a new
  // member. Returns false and changes nothing if a new key is invalid (it contains U+0000 or is not
  // UTF-8) or the document would exceed 2 GiB.
  bool Set(std::string_view key, const BsonElement& value);

  // Removes every member called `key`.
  void Erase(std::string_view key);

  bool operator==(const BsonDocument& other) const;

 private:
  friend class BsonView;

  // The memory comes from the C library, whose realloc can extend it in place.
  struct Freer {
    void operator()(std::byte* memory) const noexcept { std::free(memory); }
  };

  // Copies `checked`, which must be a valid document.
  explicit BsonDocument(std::span<const std::byte> checked);

  // Adds a member at the end without looking for another with the same key. Fails as Set does.
  bool Append(std::string_view key, const BsonElement& value);

  // Returns an iterator to the member that starts at `offset`.
  Iterator From(std::size_t offset) const;

  // Removes all members called `key` at or after `offset`, which must be the start of a member.
  void EraseFrom(std::size_t offset, std::string_view key);

  // Finds the first member called `key`, starting at `from`.
  Iterator FirstOf(std::string_view key, Iterator from) const;

  // Replaces `part`, which must point into the encoding.
  void Splice(std::span<const std::byte> part, std::span<const std::byte> replacement);
  void Reserve(std::size_t size);
  void SetUsed(std::size_t size);

  std::unique_ptr<std::byte, Freer> bytes;
  std::size_t used = 0;  // size of the encoding in bytes
  std::size_t room = 0;  // allocated bytes
};

}  // namespace Vx::Tessel::Server::Storage
