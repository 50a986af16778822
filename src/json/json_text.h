#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

// rapidjson is configured here and nowhere else: its inline functions must be the same in every
// file that has them, and a failed check of its own may neither end the process nor go unnoticed.
#ifdef RAPIDJSON_RAPIDJSON_H_
#error "include json/json_text.h instead of rapidjson's own headers"
#endif

namespace Vx::Json {

// A rapidjson value was used as what it is not, such as reading the text of a number.
class Misuse : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

[[noreturn]] void ThrowMisuse();

}  // namespace Vx::Json

#define RAPIDJSON_ASSERT(x) \
  (static_cast<bool>(x) ? static_cast<void>(0) : ::Vx::Json::ThrowMisuse())
// Some of the checks stand in functions that would otherwise be noexcept.
#define RAPIDJSON_HAS_CXX11_NOEXCEPT 0
#define RAPIDJSON_HAS_STDSTRING 1

#include <rapidjson/document.h>
#include <rapidjson/reader.h>
#include <rapidjson/writer.h>

namespace Vx::Json {

// Heap memory for rapidjson, which never looks whether it got any: throws std::bad_alloc.
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

// Memory for the short-lived stack of one parse or one write: the first block of moderate size lies
// in the object itself, others come from the heap. Serves one stack; one thread.
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
  // Before each block, so that Free knows what to do with it.
  struct alignas(16) Header {
    bool onHeap;
  };

  alignas(16) std::byte own[2048];
  bool ownTaken = false;
};

using WideEncoding = rapidjson::UTF16<wchar_t>;
using WidePool = rapidjson::MemoryPoolAllocator<CheckedHeap>;

// Request and response documents: UTF-16, in pool chunks of 65,536 bytes. Objects keep their
// members in order, repeated keys included; a lookup finds the first.
using WideDocument = rapidjson::GenericDocument<WideEncoding, WidePool, ScratchMemory>;
using WideValue = WideDocument::ValueType;

inline constexpr std::size_t kPoolChunk = 65536;

// How deep objects and arrays may lie in one another; a text beyond it is not valid JSON. Real
// documents use three or four levels. Values of this depth may be walked with recursion.
inline constexpr std::size_t kMaxNesting = 128;

// The same for a list whose elements are documents of their own.
inline constexpr std::size_t kMaxListNesting = kMaxNesting + 1;

// A longer text, in UTF-16 units, is not valid JSON: rapidjson counts in 32 bits.
inline constexpr std::size_t kMaxTextLength = std::size_t{64} * 1024 * 1024;

// Where and why a text is not valid JSON.
struct ParseFault {
  std::size_t offset = 0;  // UTF-16 units before the fault
  // None: rapidjson was not asked, because the text is too long, holds an unpaired surrogate, or
  // has a number whose exponent is too long. Termination: nested too deep, or a number too large.
  rapidjson::ParseErrorCode code = rapidjson::kParseErrorNone;
};

// Parses one JSON text into `document`; false, and a null document, when it is not valid JSON.
//
// What clients may not expect to be obvious: unpaired surrogates, raw or escaped, are not valid; an
// escaped U+0000 is a character like others; a number too large for a double (its digits before the
// exponent alone count too), or with an exponent of more than eight digits, is not valid, one too
// small is zero; whole numbers beyond 64 bits are doubles; of repeated keys the first counts. A
// nesting beyond `nestingLimit` and a text beyond kMaxTextLength are not valid. Keeps its place on
// a stack of its own, so that nesting costs no machine stack. `fault`, unless null, is told of what
// is not valid. Throws std::bad_alloc.
bool ParseJson(WideDocument& document, std::wstring_view text,
               std::size_t nestingLimit = kMaxNesting, ParseFault* fault = nullptr);

// A document together with the memory that a small one needs, so that it costs no allocation. Made
// on the stack; the pool goes on on the heap after `PoolBytes`.
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

// UTF-16 text under construction, without the heap while it is short. An output stream as rapidjson
// wants it.
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

// Appends `value` to `out` as compact JSON; false when a number in it is not finite (then `out`
// ends early). Throws std::bad_alloc.
bool WriteJson(const WideValue& value, TextBuffer& out);

// `value` as compact JSON; empty when a number in it is not finite.
std::wstring JsonText(const WideValue& value);

}  // namespace Vx::Json
