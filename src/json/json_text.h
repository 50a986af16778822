#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// Configures rapidjson for the whole program, because its inline functions must be the same in
// every file that includes them. A failed assertion throws instead of terminating the process.
#ifdef RAPIDJSON_RAPIDJSON_H_
#error "include json/json_text.h instead of rapidjson's own headers"
#endif

namespace Vx::Json {

// Thrown when code uses a rapidjson value as another type, for example reads a number as a string.
class Misuse : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

[[noreturn]] void ThrowMisuse();

}  // namespace Vx::Json

#define RAPIDJSON_ASSERT(x) \
  (static_cast<bool>(x) ? static_cast<void>(0) : ::Vx::Json::ThrowMisuse())
// Some assertions are in functions that would otherwise be noexcept.
#define RAPIDJSON_HAS_CXX11_NOEXCEPT 0
#define RAPIDJSON_HAS_STDSTRING 1

#include <rapidjson/document.h>
#include <rapidjson/reader.h>
#include <rapidjson/writer.h>

namespace Vx::Json {

// Throws std::bad_alloc if out of memory, because rapidjson does not check for null.
class CheckedHeap {
 public:
  static const bool kNeedFree = true;

  void* Malloc(std::size_t size) { return size == 0 ? nullptr : Checked(std::malloc(size)); }
  void* Realloc(void* old, std::size_t, std::size_t size) {
    if (size != 0) return Checked(std::realloc(old, size));
    std::free(old);
    return nullptr;
  }
  static void Free(void* block) { std::free(block); }

 private:
  static void* Checked(void* block) {
    if (block == nullptr) throw std::bad_alloc();
    return block;
  }
};

// Memory for the stack of one parse or one write, on one thread. The first block, if small enough,
// is in the object itself, which cuts the time of the row "id 22, request of 150 characters" in
// docs/performance.md by a quarter. Other blocks come from the heap.
class ScratchMemory {
 public:
  static const bool kNeedFree = true;

  ScratchMemory() noexcept {}  // NOLINT(cppcoreguidelines-pro-type-member-init): scratch
  ScratchMemory(const ScratchMemory&) = delete;
  ScratchMemory& operator=(const ScratchMemory&) = delete;

  void* Malloc(std::size_t size);
  void* Realloc(void* old, std::size_t oldSize, std::size_t size);
  static void Free(void* block);

 private:
  // Precedes each block so that Free knows where the block came from.
  struct alignas(16) Header {
    bool onHeap;
  };

  alignas(16) std::byte own[2048];
  bool ownTaken = false;
};

using WideEncoding = rapidjson::UTF16<wchar_t>;
using WidePool = rapidjson::MemoryPoolAllocator<CheckedHeap>;

// Request and response documents. Members keep their order. Lookups find the first with a key.
using WideDocument = rapidjson::GenericDocument<WideEncoding, WidePool, ScratchMemory>;
using WideValue = WideDocument::ValueType;

inline constexpr std::size_t kPoolChunk = 65536;

// Deeper nesting is invalid, so recursion is safe. Real texts use three or four levels.
inline constexpr std::size_t kMaxNesting = 128;

// For a list whose elements are separate documents.
inline constexpr std::size_t kMaxListNesting = kMaxNesting + 1;

// In UTF-16 units. A longer text is invalid, because rapidjson's lengths have 32 bits.
inline constexpr std::size_t kMaxTextLength = std::size_t{64} * 1024 * 1024;

struct ParseFault {
  std::size_t offset = 0;  // UTF-16 units before the fault
  // None: rejected before parsing, because the text is too long, has an unpaired surrogate, or has
  // a number whose exponent is too long. Termination: nested too deeply, or a number is too large.
  rapidjson::ParseErrorCode code = rapidjson::kParseErrorNone;
};

// Parses one JSON text into `document`. If the text is invalid, returns false and leaves a null
// document. `fault`, if not null, receives the position and kind of the first error.
//
// Beyond the grammar: Unpaired surrogates, raw or escaped, are invalid. An escaped U+0000 is an
// ordinary character. A number is invalid if it, or its significand alone, is too large for a
// double, or if its exponent has more than eight digits. A number that is too small becomes zero.
// Whole numbers beyond 64 bits become doubles. If a key is repeated, the first one wins. A text
// that is nested more deeply than `nestingLimit` or longer than kMaxTextLength is invalid.
//
// Nesting uses heap memory, not the call stack. Throws std::bad_alloc.
bool ParseJson(WideDocument& document, std::wstring_view text,
               std::size_t nestingLimit = kMaxNesting, ParseFault* fault = nullptr);

// Contains its first `PoolBytes` of pool memory, so that a small document needs no allocation. That
// cuts the time of the row "id 22, request of 150 characters" in docs/performance.md by a sixth.
template <std::size_t PoolBytes>
class InlineDocument {
 public:
  InlineDocument() : pool(own, sizeof own, kPoolChunk, &heap) {}  // NOLINT(*-member-init): scratch
  InlineDocument(const InlineDocument&) = delete;
  InlineDocument& operator=(const InlineDocument&) = delete;

  WideDocument& operator*() { return document; }
  WideDocument* operator->() { return &document; }

 private:
  static constexpr std::size_t kParseStack = 1024;  // bytes; fits ScratchMemory's own block

  alignas(16) std::byte own[PoolBytes];
  CheckedHeap heap;
  ScratchMemory scratch;
  WidePool pool;
  WideDocument document{&pool, kParseStack, &scratch};
};

// A UTF-16 text builder and output stream for rapidjson. Short texts need no heap allocation, which
// cuts the time of the row "id 22, request of 150 characters" in docs/performance.md by a quarter.
class TextBuffer {
 public:
  using Ch = wchar_t;

  TextBuffer() noexcept {}  // NOLINT(cppcoreguidelines-pro-type-member-init): filled by Put
  TextBuffer(const TextBuffer&) = delete;
  TextBuffer& operator=(const TextBuffer&) = delete;

  void Put(wchar_t unit) {
    if (size == capacity) Grow();
    data[size++] = unit;
  }
  void Flush() {}

  // Valid until the next Put.
  std::wstring_view View() const { return {data, size}; }

 private:
  void Grow();

  static constexpr std::size_t kOwnUnits = 1024;
  wchar_t own[kOwnUnits];
  std::vector<wchar_t> heap;
  wchar_t* data = own;
  std::size_t size = 0;
  std::size_t capacity = kOwnUnits;
};

// Appends `value` to `out` as compact JSON. Returns false, with `out` incomplete, if the value
// contains a number that is not finite. Throws std::bad_alloc.
bool WriteJson(const WideValue& value, TextBuffer& out);

// Returns `value` as compact JSON, or an empty string if it contains a number that is not finite.
std::wstring JsonText(const WideValue& value);

}  // namespace Vx::Json
