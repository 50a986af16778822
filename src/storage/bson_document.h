#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "storage/bson_value.h"

namespace Vx::Tessel::Server::Storage {

// A BSON document: an ordered list of keys and values. It is kept as its encoding, which was
// checked once when it came in, and walked where it lies: what is not changed is never rewritten,
// and a document costs one block of memory whatever is in it.
//
// Keys may be repeated in a document made by others: the first counts, and the rest stay as they
// are until Set or Erase touches that key. Copies are deep. One thread at a time.
class BsonDocument {
 public:
  struct Member {
    std::string_view key;
    BsonView value;
  };

  // Walks the members in order; good until the document changes.
  class Iterator {
   public:
    Member operator*() const;
    Iterator& operator++();
    bool operator==(const Iterator& other) const { return place.begin == other.place.begin; }

   private:
    friend class BsonDocument;

    // Where a member stands: its type byte, its value and the end of it.
    struct Place {
      const std::byte* begin;
      const std::byte* value;
      const std::byte* end;
    };

    explicit Iterator(const std::byte* member);

    Place place;
  };

  // Empty.
  BsonDocument();
  BsonDocument(const BsonDocument& other) : BsonDocument(other.Encoded()) {}
  // What was moved from may only be assigned to or destroyed.
  BsonDocument(BsonDocument&& other) noexcept = default;
  BsonDocument& operator=(const BsonDocument& other) { return *this = BsonDocument(other); }
  BsonDocument& operator=(BsonDocument&& other) noexcept = default;
  ~BsonDocument() = default;

  // The document that `encoded` is, all of it; nothing when anything in it is broken at any level:
  // a length, a terminator, an unknown kind, a boolean other than 0 and 1, a key or string that is
  // not UTF-8. Nesting is followed without recursion, as deep as the bytes go.
  static std::optional<BsonDocument> Decode(std::span<const std::byte> encoded);

  // The encoding, up to date; borrowed until the next change.
  std::span<const std::byte> Encoded() const { return {bytes.get(), used}; }

  Iterator begin() const;
  Iterator end() const;

  // How many members there are, by counting them.
  std::size_t Size() const;
  bool Empty() const { return begin() == end(); }

  // The first member called `key`; found by walking.
  std::optional<BsonView> Find(std::string_view key) const;

  // Puts `value` in the place of the member `key`, or at the end; other members of that key go.
  // False, and nothing changed, when the key cannot be one (U+0000 in it, not UTF-8) or the
  // document would exceed 2 GiB.
  bool Set(std::string_view key, const BsonElement& value);

  // Removes every member called `key`.
  void Erase(std::string_view key);

  bool operator==(const BsonDocument& other) const;

 private:
  friend class BsonView;

  // The memory is the C library's, whose realloc can grow it where it lies.
  struct Freer {
    void operator()(std::byte* memory) const noexcept { std::free(memory); }
  };

  // A copy of `checked`, which is a document.
  explicit BsonDocument(std::span<const std::byte> checked);

  // Adds a member at the end without looking whether there is one of that key. False as in Set.
  bool Append(std::string_view key, const BsonElement& value);

  // The first member called `key` at or behind `from`.
  Iterator FirstOf(std::string_view key, Iterator from) const;

  // Puts `replacement` in the place of a part of the encoding.
  void Splice(std::span<const std::byte> part, std::span<const std::byte> replacement);
  void Reserve(std::size_t size);
  void SetUsed(std::size_t size);

  std::unique_ptr<std::byte, Freer> bytes;
  std::size_t used = 0;  // bytes of the encoding
  std::size_t room = 0;  // bytes of memory
};

}  // namespace Vx::Tessel::Server::Storage
