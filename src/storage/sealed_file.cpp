#include "storage/sealed_file.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <iterator>
#include <string_view>
#include <utility>

#include "host/logging.h"
#include "json/decimal.h"
#include "platform/clock.h"
#include "platform/data_protection.h"
#include "platform/file_handle.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/system_services.h"

namespace Vx::Tessel::Server::Storage {

namespace {

using Platform::ErrorCode;
using Platform::FileFacts;
using Platform::FileHandle;
using Platform::FileUse;
using Platform::Result;
using Opened = Platform::Files::Opened;
using Bytes = std::vector<std::byte>;

constexpr wchar_t kAdopted[] = L"CapDataStore - completed an interrupted write from %s";
constexpr wchar_t kCopied[] = L"CapDataStore - kept a copy of the damaged file as %s";
constexpr wchar_t kNotCopied[] =
    L"CapDataStore - the damaged file is not replaced: it cannot be copied, error 0x%x";
constexpr wchar_t kNotReplaced[] =
    L"CapDataStore - the file that could not be read is not replaced";
constexpr wchar_t kNotWritten[] = L"CapDataStore - the file was not written, error 0x%x";
constexpr wchar_t kTorn[] =
    L"CapDataStore - the file is torn, error 0x%x. The next access completes it from %s";

constexpr std::size_t kIdUnits = 36;
constexpr std::size_t kHeaderSize = kIdUnits * 2;
static_assert(sizeof(wchar_t) == 2, "the header is UTF-16 in memory order");

// A larger file would only exhaust memory.
constexpr std::size_t kMaxFileSize = std::size_t{64} * 1024 * 1024;

constexpr std::wstring_view kSiblingEnding = L".new";
// Limits the siblings that one access opens. Each write leaves one if another process has it open.
constexpr std::size_t kMostSiblings = 16;
constexpr wchar_t kDamagedMark[] = L".damaged-";
constexpr std::size_t kMostCopies = 3;

constexpr std::uint32_t kDirectory = 0x10;      // FILE_ATTRIBUTE_DIRECTORY
constexpr std::uint32_t kReparsePoint = 0x400;  // FILE_ATTRIBUTE_REPARSE_POINT

constexpr ErrorCode kFileNotFound = 2;
constexpr ErrorCode kPathNotFound = 3;
constexpr ErrorCode kAccessDenied = 5;
constexpr ErrorCode kSharingViolation = 32;
constexpr ErrorCode kFileExists = 80;
constexpr ErrorCode kNameTooLong = 206;
constexpr ErrorCode kFileTooLarge = 223;

// What an error from opening, reading or unsealing the file means.
struct Meaning {
  StoreState state;
  enum class Retry : std::uint8_t { No, Yes } retry;

  bool operator==(const Meaning&) const = default;
};
constexpr Meaning kUnknown = {StoreState::NotOpened, Meaning::Retry::No};
constexpr Meaning kPasses = {StoreState::NotOpened, Meaning::Retry::Yes};
// The blob is invalid, or specifies an invalid algorithm or flag.
constexpr Meaning kDamage = {StoreState::Damaged, Meaning::Retry::No};
// This machine does not have the blob's key.
constexpr Meaning kForeignKey = {StoreState::OtherMachine, Meaning::Retry::No};
// Like the two above, but only if data protection can unseal what it seals: Windows also returns
// these errors while a machine's keys are not yet available.
constexpr Meaning kUncertainDamage = {StoreState::Damaged, Meaning::Retry::Yes};
constexpr Meaning kUncertainKey = {StoreState::OtherMachine, Meaning::Retry::Yes};

constexpr std::pair<ErrorCode, Meaning> kMeanings[] = {
    // https://learn.microsoft.com/windows/win32/debug/system-error-codes--0-499-
    {4, kPasses},   // ERROR_TOO_MANY_OPEN_FILES
    {8, kPasses},   // ERROR_NOT_ENOUGH_MEMORY
    {13, kDamage},  // ERROR_INVALID_DATA
    {14, kPasses},  // ERROR_OUTOFMEMORY
    {kSharingViolation, kPasses},
    {33, kPasses},           // ERROR_LOCK_VIOLATION
    {87, kUncertainDamage},  // ERROR_INVALID_PARAMETER: only the blob varies
    {303, kPasses},          // ERROR_DELETE_PENDING
    // https://learn.microsoft.com/windows/win32/debug/system-error-codes--1300-1699-
    {1450, kPasses},  // ERROR_NO_SYSTEM_RESOURCES
    {1455, kPasses},  // ERROR_COMMITMENT_LIMIT
    // The data protection service is starting or overloaded:
    // https://learn.microsoft.com/windows/win32/debug/system-error-codes--1700-3999-
    {1722, kPasses},  // RPC_S_SERVER_UNAVAILABLE
    {1723, kPasses},  // RPC_S_SERVER_TOO_BUSY
    {1726, kPasses},  // RPC_S_CALL_FAILED
    // https://learn.microsoft.com/windows/win32/com/com-error-codes-4
    {0x80090002, kDamage},        // NTE_BAD_HASH
    {0x80090003, kForeignKey},    // NTE_BAD_KEY
    {0x80090004, kDamage},        // NTE_BAD_LEN
    {0x80090005, kDamage},        // NTE_BAD_DATA
    {0x80090006, kDamage},        // NTE_BAD_SIGNATURE
    {0x80090007, kDamage},        // NTE_BAD_VER
    {0x80090008, kDamage},        // NTE_BAD_ALGID
    {0x80090009, kDamage},        // NTE_BAD_FLAGS
    {0x8009000A, kDamage},        // NTE_BAD_TYPE
    {0x8009000B, kUncertainKey},  // NTE_BAD_KEY_STATE
    {0x8009000D, kForeignKey},    // NTE_NO_KEY
};

Meaning MeaningOf(ErrorCode error) {
  const auto* const row =
      std::ranges::find(kMeanings, error, &std::pair<ErrorCode, Meaning>::first);
  return row == std::end(kMeanings) ? kUnknown : row->second;
}

bool IsUncertain(ErrorCode error) {
  const Meaning meaning = MeaningOf(error);
  return meaning == kUncertainDamage || meaning == kUncertainKey;
}

Platform::Files& Files() {
  return *Platform::CurrentMachine().files;
}

const Logging::TraceLogger& Log() {
  return *Logging::LogManager::SetProvider(Logging::kComponentProvider);
}

bool IsDamaged(StoreState state) {
  return state == StoreState::Damaged || state == StoreState::OtherMachine;
}

// Returns whether data protection works now. If it does, the blob caused the uncertain error.
bool ProtectionWorks() {
  const auto& protection = *Platform::CurrentMachine().dataProtection;
  const Result<Bytes> probe = protection.Protect(Bytes(1), {});
  return probe && protection.Unprotect(*probe);
}

// Returns whether this is an ordinary file with only one hard link.
bool IsPlain(const FileFacts& facts) {
  return facts.names == 1 && (facts.attributes & (kDirectory | kReparsePoint)) == 0;
}

// Returns whether the file has been deleted, or cannot be one of ours because its name is too long
// for this process to open.
bool IsNotThere(ErrorCode error) {
  return error == kFileNotFound || error == kPathNotFound || error == kNameTooLong;
}

// Opens a file beside the store that the store may adopt or delete: an ordinary file with a trusted
// owner. Returns null if it is not one or no longer exists, and an error if Windows cannot tell.
Opened OpenOwn(const std::wstring& path, FileUse use) {
  // Checks the owner first, because another account may have its own file open exclusively.
  for (const FileUse step : {FileUse::Inspect, use}) {
    Opened opened = Files().Open(path, step);
    if (!opened) {
      // SYSTEM can always inspect its own files. Windows also denies access if this is a folder.
      const bool foreign = step == FileUse::Inspect && opened.Error() == kAccessDenied;
      if (foreign || IsNotThere(opened.Error())) break;
      return Platform::Failure(opened.Error());
    }
    const Result<FileFacts> facts = (*opened)->Facts();
    if (!facts) return Platform::Failure(facts.Error());
    const Result<bool> ours = (*opened)->HasTrustedOwner();
    if (!ours) return Platform::Failure(ours.Error());
    if (!IsPlain(*facts) || !*ours) break;
    if (step == use) return opened;
  }
  return Opened(nullptr);
}

// Returns the newest siblings that may be ours. Later accesses delete the rest. Skips other
// accounts' files, which could otherwise crowd out ours.
Result<std::vector<std::wstring>> SiblingsOf(const std::wstring& path) {
  Result<std::vector<std::wstring>> names = Files().Siblings(path);
  if (!names) return names;
  std::size_t found = 0;
  std::erase_if(*names, [&](const std::wstring& name) {
    if (found == kMostSiblings || !name.ends_with(kSiblingEnding)) return true;
    const Opened own = OpenOwn(name, FileUse::Inspect);
    if (own && *own == nullptr) return true;
    ++found;
    return false;
  });
  return names;
}

// Deletes a file if it is one of ours and no other process has it open.
void RemoveOwn(const std::wstring& path) {
  const Opened own = OpenOwn(path, FileUse::Remove);
  if (own && *own != nullptr) (*own)->Remove();
}

// Returns the number at the end of a copy's name, which orders the copies even if the clock is set
// back. Returns zero if the name has none.
unsigned long NumberOf(const std::wstring& copy) {
  const std::size_t dot = copy.find_last_of(L'.');
  const std::wstring end = copy.substr(dot + 1);
  return end.starts_with(L"damaged-") ? 0 : std::wcstoul(end.c_str(), nullptr, 10);
}

// Returns the copies of damaged files, oldest first, including those that another process has open.
Result<std::vector<std::wstring>> CopiesOf(const std::wstring& path) {
  Result<std::vector<std::wstring>> copies = Files().Siblings(path);
  if (!copies) return copies;
  std::erase_if(*copies, [&](const std::wstring& name) {
    if (!name.starts_with(path + kDamagedMark)) return true;
    const Opened own = OpenOwn(name, FileUse::Inspect);
    return !own || *own == nullptr;
  });
  std::ranges::sort(*copies, {},
                    [](const std::wstring& copy) { return std::pair(NumberOf(copy), copy); });
  return copies;
}

bool Holds(const FileHandle& file, std::span<const std::byte> content) {
  const Result<Bytes> found = file.Content(kMaxFileSize);
  return found && std::ranges::equal(*found, content);
}

bool IsCopyOf(const std::wstring& copy, std::span<const std::byte> content) {
  const Opened own = OpenOwn(copy, FileUse::Read);
  return own && *own != nullptr && Holds(**own, content);
}

// Replaces the content of an open file and flushes it.
ErrorCode Rewrite(FileHandle& file, std::span<const std::byte> content) {
  ErrorCode error = file.Write(content);
  if (error == 0) error = file.Flush();
  if (error == 0) error = file.SetSize(content.size());
  return error == 0 ? file.Flush() : error;
}

// Returns whether a rename may have failed because another process has one of the files open.
bool IsHeldByAnother(ErrorCode error) {
  return error == kAccessDenied || error == kSharingViolation;
}

Bytes Joined(const std::wstring& id, const Bytes& blob) {
  Bytes content;
  content.reserve(kHeaderSize + blob.size());
  const std::span<const std::byte> header = std::as_bytes(std::span(id));
  content.insert(content.end(), header.begin(), header.end());
  content.insert(content.end(), blob.begin(), blob.end());
  return content;
}

// Writes and flushes a newly created file. Deletes the file on failure.
ErrorCode Fill(FileHandle& file, std::span<const std::byte> content) {
  ErrorCode error = file.Write(content);
  if (error == 0) error = file.Flush();
  if (error != 0) file.Remove();
  return error;
}

// Returns a UTC time in the form "20240715-101500-042".
std::wstring DateText(std::chrono::milliseconds since1601) {
  using namespace std::chrono;  // NOLINT(google-build-using-namespace)
  const auto time = sys_days(year(1601) / January / 1) + since1601;
  const auto day = floor<days>(time);
  const year_month_day date(day);
  const hh_mm_ss clock(time - day);
  const auto dateDigits = std::int64_t{int{date.year()}} * 10'000 +
                          std::int64_t{unsigned{date.month()}} * 100 +
                          std::int64_t{unsigned{date.day()}};
  const auto clockDigits =
      clock.hours().count() * 10'000 + clock.minutes().count() * 100 + clock.seconds().count();
  return Json::WideDecimal(dateDigits, 8) + L'-' + Json::WideDecimal(clockDigits, 6) + L'-' +
         Json::WideDecimal(clock.subseconds().count(), 3);
}

// Writes a copy of a damaged file to the same folder.
ErrorCode MakeCopy(const std::wstring& path, unsigned long number,
                   std::span<const std::byte> content) {
  constexpr std::uint64_t kUnitsPerMillisecond = 10'000;  // units of 100 ns
  constexpr int kMostNames = 100;
  const std::uint64_t now = Platform::CurrentMachine().clock->UtcFileTime();
  std::chrono::milliseconds date(now / kUnitsPerMillisecond);
  ErrorCode error = kFileExists;
  for (int i = 0; i < kMostNames && error == kFileExists; ++i, ++date) {
    const std::wstring copy =
        path + kDamagedMark + DateText(date) + L"." + Json::WideDecimal(number);
    const Opened made = Files().Create(copy, path);
    error = made ? Fill(**made, content) : made.Error();
    if (error == 0) Log().LogWarning(kCopied, copy.c_str());
  }
  return error;
}

}  // namespace

bool MayReplace(StoreState state) {
  return state == StoreState::Sound || state == StoreState::Missing || IsDamaged(state);
}

template <typename Attempt>
auto SealedFile::Patiently(const Attempt& attempt) {
  constexpr std::chrono::milliseconds kPause{25};
  for (;;) {
    auto result = attempt();
    if (result || patience < kPause || MeaningOf(result.Error()).retry == Meaning::Retry::No) {
      return result;
    }
    patience -= kPause;
    Platform::CurrentMachine().clock->Sleep(kPause);
  }
}

// A virus scanner briefly keeps a new file open. Until it closes the file, renaming or replacing it
// fails with an error that can also be permanent.
template <typename Rename>
ErrorCode SealedFile::PatientRename(const Rename& rename) {
  const Result<bool> renamed = Patiently([&] {
    const ErrorCode error = rename();
    if (error == 0) return Result<bool>(true);
    return Result<bool>(Platform::Failure(IsHeldByAnother(error) ? kSharingViolation : error));
  });
  return renamed ? 0 : renamed.Error();
}

SealedFile::Reading SealedFile::Read() {
  Reading reading = ReadOnce();
  const bool sound = reading.state == StoreState::Sound;
  const bool empty = (sound && !reading.document) || reading.state == StoreState::Missing;
  if (!empty && !IsDamaged(reading.state)) return reading;
  return Adopt(std::move(reading));
}

SealedFile::Reading SealedFile::ReadOnce() {
  const Opened opened = Patiently([this] { return Files().Open(path, FileUse::Read); });
  if (!opened) {
    const bool missing = opened.Error() == kFileNotFound || opened.Error() == kPathNotFound;
    return {.state = missing ? StoreState::Missing : StoreState::NotOpened,
            .error = opened.Error()};
  }
  const Result<FileFacts> facts = (*opened)->Facts();
  if (!facts) return {.state = StoreState::NotOpened, .error = facts.Error()};
  if (!IsPlain(*facts)) return {.state = StoreState::Linked};
  Result<Bytes> content = Patiently([&] { return (*opened)->Content(kMaxFileSize); });
  if (!content) {
    const bool large = content.Error() == kFileTooLarge;
    return {.state = large ? StoreState::TooLarge : StoreState::NotOpened,
            .error = content.Error()};
  }
  Reading reading = Unseal(*std::move(content));
  reading.cutShort = reading.state == StoreState::Sound && reading.id.empty() &&
                     (facts->size > 0 || facts->written > facts->created);
  return reading;
}

SealedFile::Reading SealedFile::Unseal(Bytes content) {
  Reading reading{.state = StoreState::Sound, .content = std::move(content)};
  if (reading.content.size() < kHeaderSize) return reading;
  reading.id.resize(kIdUnits);
  std::memcpy(reading.id.data(), reading.content.data(), kHeaderSize);
  if (reading.content.size() == kHeaderSize) return reading;

  const auto blob = std::span(reading.content).subspan(kHeaderSize);
  const auto unprotect = [&] { return Platform::CurrentMachine().dataProtection->Unprotect(blob); };
  Result<Bytes> plain = Patiently(unprotect);
  const bool works = !plain && IsUncertain(plain.Error()) && ProtectionWorks();
  // The keys may have become available between the last attempt and this test.
  if (works) plain = unprotect();
  if (plain) {
    reading.document = BsonDocument::Decode(*plain);
    if (!reading.document) reading.state = StoreState::Damaged;
  } else {
    reading.error = plain.Error();
    reading.state = IsUncertain(plain.Error()) && !works ? StoreState::NotOpened
                                                         : MeaningOf(plain.Error()).state;
  }
  return reading;
}

SealedFile::Reading SealedFile::Adopt(Reading reading) {
  const auto notOpened = [](ErrorCode error) {
    return Reading{.state = StoreState::NotOpened, .error = error};
  };
  const Result<std::vector<std::wstring>> names = Patiently([this] { return SiblingsOf(path); });
  if (!names) return notOpened(names.Error());
  // A file with only a header may have been reset on purpose.
  const bool isReset = reading.state == StoreState::Sound && !reading.id.empty();
  std::wstring newest;
  std::uint64_t written = 0;
  Bytes content;
  for (const std::wstring& name : *names) {
    const Opened own = Patiently([&] { return OpenOwn(name, FileUse::Read); });
    // The sibling may come from an interrupted write and be unreadable only temporarily.
    if (!own) return notOpened(own.Error());
    if (*own == nullptr) continue;
    const Result<FileFacts> facts = (*own)->Facts();
    if (!facts) return notOpened(facts.Error());
    if (facts->written < written) continue;
    Result<Bytes> found = Patiently([&] { return (*own)->Content(kMaxFileSize); });
    // No write leaves a file this large.
    if (!found && found.Error() == kFileTooLarge) continue;
    if (!found) return notOpened(found.Error());
    Reading unsealed = Unseal(*found);
    if (unsealed.state == StoreState::NotOpened) return unsealed;
    if (!unsealed.document || (isReset && unsealed.id != reading.id)) continue;
    newest = name;
    written = facts->written;
    content = *std::move(found);
  }
  if (newest.empty()) return reading;
  if (IsDamaged(reading.state) && !KeepCopy(reading.content)) return notOpened(reading.error);
  const ErrorCode error = PutInPlace(newest, content);
  if (error != 0) return notOpened(error);
  Log().LogWarning(kAdopted, newest.c_str());
  return ReadOnce();
}

// Replaces the file with its sibling, which contains `content`. If a thread was terminated, its
// handle to the sibling stays open until the process exits, which prevents the rename. In that
// case, writes the content over the file.
ErrorCode SealedFile::PutInPlace(const std::wstring& sibling, std::span<const std::byte> content) {
  const Opened own = Patiently([&] { return OpenOwn(sibling, FileUse::Replace); });
  ErrorCode error = own ? 0 : own.Error();
  FileHandle* const file = own ? own->get() : nullptr;
  const bool movable = file != nullptr && Holds(*file, content);
  if (movable) {
    error = PatientRename([&] { return file->MoveOver(path); });
    if (error == 0) return file->Flush();
  }
  if (error != 0 && !IsHeldByAnother(error)) return error;
  error = WriteInPlace(content).error;
  if (error == 0 && movable) file->Remove();
  return error;
}

SealedFile::InPlaceResult SealedFile::WriteInPlace(std::span<const std::byte> content) {
  const Opened opened = Patiently([this] { return Files().Open(path, FileUse::Change); });
  if (!opened) return {opened.Error()};
  const Result<FileFacts> facts = (*opened)->Facts();
  if (!facts) return {facts.Error()};
  if (!IsPlain(*facts)) return {kAccessDenied};
  const Result<Bytes> old = (*opened)->Content(kMaxFileSize);
  if (!old) return {old.Error()};
  // Extends the file before overwriting anything, because the disk may be full.
  InPlaceResult result{(*opened)->SetSize(std::max(old->size(), content.size()))};
  if (result.error == 0) result.error = Rewrite(**opened, content);
  result.torn = result.error != 0 && Rewrite(**opened, *old) != 0;
  return result;
}

void SealedFile::RemoveSiblings() {
  const Result<std::vector<std::wstring>> names = SiblingsOf(path);
  if (!names) return;
  for (const std::wstring& name : *names) RemoveOwn(name);
}

bool SealedFile::Write(const std::wstring& id, const BsonDocument& document,
                       const Reading& before) {
  if (!MayReplace(before.state)) {
    Log().LogWarning(kNotReplaced);
    return false;
  }
  if (IsDamaged(before.state) && !KeepCopy(before.content)) return false;
  const ErrorCode error = SealAndReplace(id, document);
  if (error != 0) Log().LogWarning(kNotWritten, error);
  return error == 0;
}

ErrorCode SealedFile::SealAndReplace(const std::wstring& id, const BsonDocument& document) {
  // A file beyond the limit could not be read back.
  if (document.Encoded().size() > kMaxFileSize) return kFileTooLarge;
  const Result<Bytes> blob =
      Platform::CurrentMachine().dataProtection->Protect(document.Encoded(), path);
  if (!blob) return blob.Error();
  if (kHeaderSize + blob->size() > kMaxFileSize) return kFileTooLarge;
  return Replace(Joined(id, *blob));
}

bool SealedFile::KeepCopy(std::span<const std::byte> content) const {
  const Result<std::vector<std::wstring>> found = CopiesOf(path);
  if (!found) {  // a new copy numbered 1 would be mistaken for the oldest
    Log().LogWarning(kNotCopied, found.Error());
    return false;
  }
  const std::vector<std::wstring>& copies = *found;
  // The last write may have failed after making this copy.
  std::size_t kept = kMostCopies;
  if (copies.empty() || !IsCopyOf(copies.back(), content)) {
    const unsigned long number = copies.empty() ? 1 : NumberOf(copies.back()) + 1;
    if (const ErrorCode error = MakeCopy(path, number, content); error != 0) {
      Log().LogWarning(kNotCopied, error);
      return false;
    }
    --kept;  // leaves room for the new copy
  }
  // A copy that another process has open is deleted when the next copy is made.
  for (std::size_t i = 0; i + kept < copies.size(); ++i) RemoveOwn(copies[i]);
  return true;
}

ErrorCode SealedFile::Replace(std::span<const std::byte> content) {
  const Result<std::wstring> name = Platform::NewUuid();
  if (!name) return name.Error();
  const std::wstring sibling = (path + L".").append(*name).append(kSiblingEnding);
  {
    const Opened made = Files().Create(sibling, path);
    if (!made) return made.Error();
    if (const ErrorCode error = Fill(**made, content); error != 0) return error;
  }
  InPlaceResult result{PatientRename([&] { return Files().MoveOver(sibling, path); })};
  if (result.error == 0) return 0;
  if (IsHeldByAnother(result.error)) result = WriteInPlace(content);
  if (result.torn) {
    Log().LogWarning(kTorn, result.error, sibling.c_str());
    return result.error;
  }
  RemoveOwn(sibling);
  return result.error;
}

}  // namespace Vx::Tessel::Server::Storage
