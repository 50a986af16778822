#include "storage/cap_data_store.h"

#include <algorithm>
#include <cstring>
#include <span>
#include <stdexcept>
#include <utility>

#include "host/logging.h"
#include "platform/data_protection.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "storage/path_pattern.h"

namespace Vx::Tessel::Server::Storage {

namespace {

using Logging::LogManager;

constexpr char kExpandFailed[] =
    "CapDataStore::expandPathAndCreateDirectory - failed to expanded environment variable pointing "
    "to output directory";
constexpr char kMakeFolderFailed[] =
    "CapDataStore::expandPathAndCreateDirectory - failed to create storage directory";
constexpr char kEmptyPath[] = "CapDataStore::isNTFSJunction - path to file can't be empty.";
constexpr char kInvalidPath[] = "CapDataStore::isNTFSJunction - path to file must be valid.";
constexpr char kJunction[] =
    "CapDataStore::initializeFile - Juction detected while attempting access file.";
constexpr wchar_t kPersistReadFailed[] = L"CapDataStore::persist - failed to read current content.";
constexpr wchar_t kReadFailed[] = L"CapDataStore::read - File read error";
constexpr char kReadError[] = "CapDataStore::read - File read error";

constexpr wchar_t kProgramDataRoot[] = L"%programdata%\\Vx\\";
constexpr wchar_t kStoreDirectory[] = L"%programdata%\\Vx\\SharedServices\\";
constexpr wchar_t kStoreName[] = L"shared";
constexpr wchar_t kFileEnding[] = L"_store.dat";
constexpr wchar_t kMutexName[] = L"18CC6446-1DB5-4D23-8F2B-441BA13883D6";

constexpr std::size_t kMaxPathUnits = 261;  // with the terminator
constexpr Platform::ErrorCode kAlreadyExists = 183;
constexpr std::uint32_t kReparsePoint = 0x400;  // among the attributes of a file
constexpr std::size_t kIdUnits = 36;
constexpr std::uint32_t kHeaderSize = kIdUnits * 2;
constexpr std::uint32_t kInputBinary = 0x21;  // as the stream library numbers its modes
constexpr std::uint32_t kOutputTruncateBinary = 0x32;
static_assert(sizeof(wchar_t) == 2, "the header is UTF-16 in memory order");

// A larger file is not ours; reading it would only exhaust memory.
constexpr std::size_t kMaxFileSize = std::size_t{64} * 1024 * 1024;

Platform::Files& Files() {
  return *Platform::CurrentMachine().files;
}

}  // namespace

// Holds the mutex for a scope. Release, the ordinary end, reports a failure; the destructor of a
// scope left by an exception cannot.
class CapDataStore::Hold {
 public:
  explicit Hold(SystemMutex& systemMutex) : mutex(&systemMutex) { mutex->lock(); }
  Hold(const Hold&) = delete;
  Hold& operator=(const Hold&) = delete;
  ~Hold() {
    if (mutex == nullptr) return;
    try {
      mutex->unlock();
    } catch (const system_mutex_exception&) {
      return;  // the exception that is on its way says more
    }
  }

  void Release() { std::exchange(mutex, nullptr)->unlock(); }

 private:
  SystemMutex* mutex;
};

CapDataStore::CapDataStore()
    : programDataRoot(kProgramDataRoot),
      storeDirectory(kStoreDirectory),
      headerSize(kHeaderSize),
      readMode(kInputBinary),
      writeMode(kOutputTruncateBinary),
      storeName(kStoreName),
      filePath((expandPathAndCreateDirectory(programDataRoot),
                expandPathAndCreateDirectory(storeDirectory) + storeName + kFileEnding)),
      mutex(kMutexName) {
  initializeFile();
}

std::wstring CapDataStore::expandPathAndCreateDirectory(const std::wstring& path) {
  Platform::Result<std::wstring> expanded =
      Platform::CurrentMachine().environment->Expand(path, kMaxPathUnits);
  if (!expanded) throw std::runtime_error(kExpandFailed);
  const Platform::ErrorCode error = Files().MakeFolder(*expanded);
  if (error != 0 && error != kAlreadyExists) throw std::runtime_error(kMakeFolderFailed);
  return *std::move(expanded);
}

bool CapDataStore::isNTFSJunction(const std::wstring& path) {
  if (path.empty()) throw std::runtime_error(kEmptyPath);
  if (!IsFilePath(path)) throw std::runtime_error(kInvalidPath);
  const Platform::Result<std::uint32_t> attributes = Files().Attributes(path);
  return attributes && (*attributes & kReparsePoint) != 0;
}

void CapDataStore::initializeFile() {
  Hold hold(mutex);
  if (isNTFSJunction(filePath)) throw std::runtime_error(kJunction);
  Files().Touch(filePath);
  // A file that cannot be read now is reported by the operation that needs it.
  static_cast<void>(readFile());
  hold.Release();
}

bool CapDataStore::readFile() {
  current = false;
  if (isNTFSJunction(filePath)) return false;
  const Platform::Result<std::vector<std::byte>> content = Files().Read(filePath, kMaxFileSize);
  return content && decode(*content);
}

bool CapDataStore::decode(const std::vector<std::byte>& content) {
  if (content.size() < headerSize) return true;
  storeId.resize(kIdUnits);
  std::memcpy(storeId.data(), content.data(), headerSize);
  if (content.size() == headerSize) return true;

  Platform::Result<std::vector<std::byte>> plain =
      Platform::CurrentMachine().dataProtection->Unprotect(std::span(content).subspan(headerSize));
  if (!plain) return false;
  std::optional<BsonDocument> decoded = BsonDocument::Decode(*std::move(plain));
  if (!decoded) return false;
  document = *std::move(decoded);
  current = true;
  return true;
}

bool CapDataStore::writeFile() {
  // A file beyond the limit would not be read again, and the next write would replace it.
  if (isNTFSJunction(filePath) || document.Encoded().size() > kMaxFileSize) return false;
  const Platform::Result<std::vector<std::byte>> blob =
      Platform::CurrentMachine().dataProtection->Protect(document.Encoded(), filePath);
  if (!blob || headerSize + blob->size() > kMaxFileSize) return false;
  if (storeId.empty()) {
    Platform::Result<std::wstring> id = Platform::NewUuid();
    if (!id) return false;
    storeId = *std::move(id);
    storeId.resize(kIdUnits);
  }
  // Header and blob leave in one call: a crash between two would leave an unreadable file.
  std::vector<std::byte> content;
  content.reserve(headerSize + blob->size());
  const std::span<const std::byte> header = std::as_bytes(std::span(storeId));
  content.insert(content.end(), header.begin(), header.end());
  content.insert(content.end(), blob->begin(), blob->end());
  return Files().Overwrite(filePath, content) == 0;
}

void CapDataStore::readForChange() {
  if (!readFile()) {
    LogManager::SetProvider(Logging::kComponentProvider)->LogWarning(kPersistReadFailed);
  }
}

bool CapDataStore::isStored(std::string_view key, const BsonElement& value) const {
  if (!current) return false;
  std::size_t equal = 0;
  for (const BsonDocument::Member& member : document) {
    if (member.key != key) continue;
    if (!(member.value == value.View())) return false;
    ++equal;
  }
  return equal == 1;
}

bool CapDataStore::store(std::string_view key, const BsonElement& value) {
  if (isStored(key, value)) return true;
  if (!document.Set(key, value)) return false;
  if (writeFile()) return true;
  document.Erase(key);
  return false;
}

bool CapDataStore::persist(std::string_view key, std::string_view value) {
  return persist(key, BsonElement::Text(value));
}

bool CapDataStore::persist(std::string_view key, const char* value) {
  return persist(key, std::string_view(value));
}

bool CapDataStore::persist(std::string_view key, bool value) {
  return persist(key, BsonElement::Boolean(value));
}

bool CapDataStore::persist(std::string_view key, const BsonElement& value) {
  Hold hold(mutex);
  readForChange();
  const bool stored = store(key, value);
  hold.Release();
  return stored;
}

bool CapDataStore::read(std::string_view key, BsonElement& out) {
  Hold hold(mutex);
  const bool readable = readFile();
  const std::optional<BsonView> found = readable ? document.Find(key) : std::nullopt;
  if (found) out = BsonElement(*found);
  hold.Release();
  if (!readable) LogManager::SetProvider(Logging::kComponentProvider)->LogError(kReadFailed);
  return found.has_value();
}

std::optional<std::int64_t> CapDataStore::readInt64(std::string_view key) {
  BsonElement element;
  return read(key, element) ? element.AsInt64() : std::nullopt;
}

bool CapDataStore::readBool(std::string_view key, bool fallback) {
  BsonElement element;
  return read(key, element) ? element.AsBoolean().value_or(fallback) : fallback;
}

BsonDocument CapDataStore::readDocument(std::string_view key) {
  BsonElement element;
  return read(key, element) ? element.AsDocument().value_or(BsonDocument()) : BsonDocument();
}

std::int32_t CapDataStore::requireInt32(std::string_view key) {
  Hold hold(mutex);
  if (!readFile()) throw std::runtime_error(kReadError);
  const std::optional<BsonView> found = document.Find(key);
  const std::int32_t value = found ? found->AsInt32().value_or(0) : 0;
  hold.Release();
  return value;
}

std::optional<CapDataStore::Content> CapDataStore::readAll() {
  Hold hold(mutex);
  std::optional<Content> content;
  if (readFile()) content = Content{storeId, document};
  hold.Release();
  return content;
}

bool CapDataStore::mergeMember(std::string_view documentName, std::string_view member,
                               const BsonElement& value) {
  return updateMember(documentName, member, [&](const BsonElement*) { return value; });
}

bool CapDataStore::updateMember(std::string_view documentName, std::string_view member,
                                const Change& change) {
  Hold hold(mutex);
  readForChange();
  BsonDocument embedded;
  if (const std::optional<BsonView> found = document.Find(documentName)) {
    embedded = found->AsDocument().value_or(BsonDocument());
  }
  std::optional<BsonElement> before;
  if (const std::optional<BsonView> found = embedded.Find(member)) before.emplace(*found);

  const std::optional<BsonElement> after = change(before ? &*before : nullptr);
  const bool held =
      !after || (embedded.Set(member, *after) && store(documentName, BsonElement(embedded)));
  hold.Release();
  return held;
}

std::unique_ptr<CapDataStore> TryOpenStore() noexcept {
  try {
    return std::make_unique<CapDataStore>();
  } catch (const std::exception&) {
    return nullptr;
  }
}

}  // namespace Vx::Tessel::Server::Storage
