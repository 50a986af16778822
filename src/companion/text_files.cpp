#include "companion/text_files.h"

#include <cstdint>
#include <mutex>
#include <span>

#include "json/utf8.h"
#include "platform/files.h"
#include "platform/machine.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kNoMark[] = L"Error Finding BOM for file: %s";
constexpr wchar_t kUnreadable[] = L"Error while reading text file %s";
constexpr wchar_t kSourceFailed[] = L"Error while copying source file %s";
constexpr wchar_t kPartEnding[] = L".part";
constexpr wchar_t kDestinationFailed[] = L"Error while copying destination file %s";

constexpr std::uint32_t kReadOnly = 0x1;  // FILE_ATTRIBUTE_READONLY

// Checked before the move, because the emulator, unlike Windows, replaces a read-only file.
bool IsReadOnly(const Platform::Files& files, const std::wstring& path) {
  const auto attributes = files.Attributes(path);
  return attributes && (*attributes & kReadOnly) != 0;
}

// Writes a second file and moves it over the first, so an interrupted copy leaves the old content.
bool Replace(Platform::Files& files, const std::wstring& destination,
             std::span<const std::byte> content) {
  if (IsReadOnly(files, destination)) return false;
  static std::mutex copying;  // every copy to one destination uses the same second file
  const std::lock_guard guard(copying);
  const std::wstring part = destination + kPartEnding;
  const bool written = files.Overwrite(part, content) == 0;
  if (written && files.MoveOver(part, destination) == 0) return true;
  files.Remove(part);
  // A process that has the destination open may block its replacement but still share writing. Only
  // this copy in place can leave half a file.
  return written && files.Overwrite(destination, content) == 0;
}

}  // namespace

std::optional<std::wstring> ReadTextFile(const std::wstring& path, const wchar_t* caller,
                                         const Logging::TraceLogger& logger) {
  const auto content = Platform::CurrentMachine().files->Read(path, kMaxTextFile);
  std::optional<std::wstring> text;
  if (content) {
    text = Json::DecodeText(*content);
    if (!text) {
      logger.For(caller).LogWarning(kNoMark, path.c_str());
      text = Json::ToWide({reinterpret_cast<const char*>(content->data()), content->size()});
    }
  }
  if (text && text->find(L'\0') == std::wstring::npos) return text;
  logger.For(caller).LogWarning(kUnreadable, path.c_str());
  return std::nullopt;
}

bool CopyFileContent(const std::wstring& source, const std::wstring& destination,
                     const wchar_t* caller, const Logging::TraceLogger& logger) {
  Platform::Files& files = *Platform::CurrentMachine().files;
  const auto content = files.Read(source, kMaxTextFile);
  if (!content) {
    logger.For(caller).LogError(kSourceFailed, source.c_str());
    return false;
  }
  if (Replace(files, destination, *content)) return true;
  logger.For(caller).LogError(kDestinationFailed, destination.c_str());
  return false;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
