#include "storage/cap_data_store.h"

#include <stdexcept>
#include <utility>

#include "host/logging.h"
#include "platform/environment.h"
#include "platform/files.h"
#include "platform/machine.h"
#include "platform/system_services.h"
#include "storage/path_pattern.h"
#include "storage/service_document.h"

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

constexpr std::pair<StoreState, const wchar_t*> kUnreadable[] = {
    {StoreState::Missing, L"CapDataStore - the file is missing"},
    {StoreState::Damaged, L"CapDataStore - the file is damaged, error 0x%x"},
    {StoreState::OtherMachine,
     L"CapDataStore - the file was sealed on another machine, error 0x%x"},
    {StoreState::Linked, L"CapDataStore - the file is a link or has a second name"},
    {StoreState::TooLarge, L"CapDataStore - the file is too large"},
    {StoreState::NotOpened, L"CapDataStore - the file could not be opened, error 0x%x"},
};
constexpr wchar_t kCutShort[] = L"CapDataStore - the file is shorter than its header and not new";

constexpr wchar_t kNotMade[] = L"CapDataStore - the store could not be opened: %S";
constexpr wchar_t kNoId[] = L"CapDataStore - no id could be made for the file, error 0x%x";
constexpr wchar_t kNotSet[] = L"CapDataStore - the value does not fit into the document";
constexpr wchar_t kDocumentStays[] =
    L"CapDataStore - a document is not replaced by a mark under its key";

constexpr wchar_t kProgramDataRoot[] = L"%programdata%\\Vx\\";
constexpr wchar_t kStoreDirectory[] = L"%programdata%\\Vx\\SharedServices\\";
constexpr wchar_t kStoreName[] = L"shared";
constexpr wchar_t kFileEnding[] = L"_store.dat";

constexpr std::size_t kMaxPathUnits = 261;  // including the terminator
constexpr Platform::ErrorCode kAlreadyExists = 183;
constexpr std::uint32_t kReparsePoint = 0x400;  // FILE_ATTRIBUTE_REPARSE_POINT
constexpr std::uint32_t kHeaderSize = 72;
constexpr std::uint32_t kInputBinary = 0x21;  // the stream library's open-mode bits
constexpr std::uint32_t kOutputTruncateBinary = 0x32;

Platform::Files& Files() {
  return *Platform::CurrentMachine().files;
}

const Logging::TraceLogger& Log() {
  return *LogManager::SetProvider(Logging::kComponentProvider);
}

}  // namespace

// Holds the mutex for a scope. Release, called at the end of the scope, throws on failure. If an
// exception leaves the scope, the destructor unlocks the mutex instead and does not throw.
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
      return;  // the exception in flight is more useful
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
      filePath((expandPathAndCreateDirectory(programDataRoot, Platform::NewFolder::Inherits),
                // Private, because an account that can read the file could hold it open and slow
                // writes.
                expandPathAndCreateDirectory(storeDirectory, Platform::NewFolder::Private) +
                    storeName + kFileEnding)),
      file(filePath),
      mutex(kMutexName) {
  initializeFile();
}

std::wstring CapDataStore::PathOfFile() {
  return expandPath(kStoreDirectory) + kStoreName + kFileEnding;
}

std::wstring CapDataStore::expandPath(const std::wstring& path) {
  Platform::Result<std::wstring> expanded =
      Platform::CurrentMachine().environment->Expand(path, kMaxPathUnits);
  if (!expanded) throw std::runtime_error(kExpandFailed);
  return *std::move(expanded);
}

std::wstring CapDataStore::expandPathAndCreateDirectory(const std::wstring& path,
                                                        Platform::NewFolder access) {
  std::wstring expanded = expandPath(path);
  const Platform::ErrorCode error = Files().MakeFolder(expanded, access);
  if (error != 0 && error != kAlreadyExists) throw std::runtime_error(kMakeFolderFailed);
  return expanded;
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
  // If the file cannot be read now, the operation that needs it reports the failure.
  readFile();
  if (lastReading.state == StoreState::Linked) throw std::runtime_error(kJunction);
  if (lastReading.cutShort) Log().LogWarning(kCutShort);
  if (lastReading.state == StoreState::Sound && lastReading.document) file.RemoveSiblings();
  hold.Release();
}

bool CapDataStore::readFile() {
  if (isNTFSJunction(filePath)) {
    lastReading = {.state = StoreState::Linked};
    return false;
  }
  lastReading = file.Read();
  if (!lastReading.id.empty()) storeId = lastReading.id;
  if (lastReading.document) document = *std::move(lastReading.document);
  return lastReading.state == StoreState::Sound;
}

bool CapDataStore::writeFile() {
  if (isNTFSJunction(filePath)) {
    if (std::exchange(lastReading.state, StoreState::Linked) != StoreState::Linked) reportState();
    return false;
  }
  if (storeId.empty()) {
    Platform::Result<std::wstring> id = Platform::NewUuid();
    if (!id) {
      Log().LogWarning(kNoId, id.Error());
      return false;
    }
    storeId = *std::move(id);
    storeId.resize(headerSize / sizeof(wchar_t));
  }
  return file.Write(storeId, document, lastReading);
}

void CapDataStore::readForChange() {
  if (readFile()) return;
  Log().LogWarning(kPersistReadFailed);
  reportState();
}

void CapDataStore::reportState() const {
  for (const auto& [state, text] : kUnreadable) {
    if (state == lastReading.state) Log().LogWarning(text, lastReading.error);
  }
}

bool CapDataStore::store(std::string_view key, const BsonElement& value) {
  if (!document.Set(key, value)) {
    Log().LogWarning(kNotSet);
    return false;
  }
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

bool CapDataStore::persistUnlessDocument(std::string_view key, bool value) {
  Hold hold(mutex);
  readForChange();
  const std::optional<BsonView> found = document.Find(key);
  const bool isDocument =
      key == Services::Orvane::kServiceDocument || (found && found->Kind() == BsonKind::Document);
  if (isDocument) Log().LogWarning(kDocumentStays);
  const bool stored =
      MayReplace(lastReading.state) && !isDocument && store(key, BsonElement::Boolean(value));
  hold.Release();
  return stored;
}

bool CapDataStore::read(std::string_view key, BsonElement& out) {
  Hold hold(mutex);
  const bool readable = readFile();
  const std::optional<BsonView> found = readable ? document.Find(key) : std::nullopt;
  if (found) out = BsonElement(*found);
  hold.Release();
  if (!readable) {
    Log().LogError(kReadFailed);
    reportState();
  }
  return found.has_value();
}

std::optional<std::int64_t> CapDataStore::readInt64(std::string_view key) {
  BsonElement element;
  return read(key, element) ? element.View().AsInt64() : std::nullopt;
}

bool CapDataStore::readBool(std::string_view key, bool fallback) {
  BsonElement element;
  return read(key, element) ? element.View().AsBoolean().value_or(fallback) : fallback;
}

BsonDocument CapDataStore::readDocument(std::string_view key) {
  BsonElement element;
  return read(key, element) ? element.View().AsDocument().value_or(BsonDocument()) : BsonDocument();
}

std::optional<BsonDocument> CapDataStore::documentAtOpening(std::string_view key) {
  BsonElement ignored;
  if (lastReading.state != StoreState::Sound) read(key, ignored);
  const bool readable =
      lastReading.state == StoreState::Sound || lastReading.state == StoreState::Missing;
  if (!readable) return std::nullopt;
  const std::optional<BsonView> found = document.Find(key);
  return found ? found->AsDocument() : BsonDocument();
}

std::int32_t CapDataStore::requireInt32(std::string_view key) {
  Hold hold(mutex);
  if (!readFile()) {
    reportState();
    throw std::runtime_error(kReadError);
  }
  const std::optional<BsonView> found = document.Find(key);
  const std::int32_t value = found ? found->AsInt32().value_or(0) : 0;
  hold.Release();
  return value;
}

bool CapDataStore::mergeMember(std::string_view documentName, std::string_view member,
                               const BsonElement& value) {
  return updateMember(documentName, member, [&](const BsonElement*) { return value; });
}

BsonDocument CapDataStore::embeddedForChange(std::string_view documentName) {
  const std::optional<BsonView> found = document.Find(documentName);
  if (!found) return {};
  std::optional<BsonDocument> embedded = found->AsDocument();
  if (!embedded && lastReading.state == StoreState::Sound) {
    lastReading.state = StoreState::Damaged;  // so that the write keeps a copy
    reportState();
  }
  return std::move(embedded).value_or(BsonDocument());
}

bool CapDataStore::updateMember(std::string_view documentName, std::string_view member,
                                const Change& change) {
  Hold hold(mutex);
  readForChange();
  BsonDocument embedded = embeddedForChange(documentName);
  std::optional<BsonElement> before;
  if (const std::optional<BsonView> found = embedded.Find(member)) before.emplace(*found);

  const std::optional<BsonElement> after = change(before ? &*before : nullptr);
  bool held = after || MayReplace(lastReading.state);
  if (after && !embedded.Set(member, *after)) {
    Log().LogWarning(kNotSet);
    held = false;
  }
  if (after && held) held = store(documentName, BsonElement(embedded));
  hold.Release();
  return held;
}

std::unique_ptr<CapDataStore> TryOpenStore() noexcept {
  try {
    return std::make_unique<CapDataStore>();
  } catch (const std::exception& error) {
    Log().LogWarning(kNotMade, error.what());
    return nullptr;
  }
}

}  // namespace Vx::Tessel::Server::Storage
