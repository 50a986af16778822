#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "platform/data_protection.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "storage/bson_document.h"

// Reads and writes the store's file as another service does, without the store's own code.
namespace Vx::Tests {

using Bytes = std::vector<std::byte>;

inline constexpr wchar_t kStoreMutex[] = L"18CC6446-1DB5-4D23-8F2B-441BA13883D6";
inline constexpr std::size_t kHeaderSize = 72;
inline const std::wstring kSomeId = L"01234567-89ab-cdef-0123-456789abcdef";

inline Bytes ReadBytes(const std::wstring& path) {
  auto content = Platform::WindowsMachine().files->Read(path, std::size_t{1} << 30);
  return content ? *std::move(content) : Bytes();
}

inline void WriteBytes(const std::wstring& path, std::span<const std::byte> content) {
  Platform::WindowsMachine().files->Overwrite(path, content);
}

inline Bytes StoreFile(std::span<const std::byte> plain, const std::wstring& id = kSomeId) {
  const auto header = std::as_bytes(std::span(id));
  Bytes content(header.begin(), header.end());
  const auto blob = Platform::WindowsMachine().dataProtection->Protect(plain, L"another service");
  content.insert(content.end(), blob->begin(), blob->end());
  return content;
}

inline std::optional<Bytes> PlainOf(const Bytes& file) {
  if (file.size() <= kHeaderSize) return std::nullopt;
  auto plain =
      Platform::WindowsMachine().dataProtection->Unprotect(std::span(file).subspan(kHeaderSize));
  if (!plain) return std::nullopt;
  return *std::move(plain);
}

// Returns the document in a store file, or nothing if it is unreadable.
inline std::optional<Tessel::Server::Storage::BsonDocument> HeldBy(const Bytes& file) {
  using Tessel::Server::Storage::BsonDocument;
  if (file.size() <= kHeaderSize) return BsonDocument();
  const std::optional<Bytes> plain = PlainOf(file);
  return plain ? BsonDocument::Decode(*plain) : std::nullopt;
}

inline std::wstring IdOf(const Bytes& file) {
  std::wstring id(std::min(file.size(), kHeaderSize) / sizeof(wchar_t), L'\0');
  std::memcpy(id.data(), file.data(), id.size() * sizeof(wchar_t));
  return id;
}

inline Tessel::Server::Storage::BsonDocument DocumentOf(const std::wstring& path) {
  return HeldBy(ReadBytes(path)).value();
}

}  // namespace Vx::Tests
