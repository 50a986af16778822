#include "launch/text_files.h"

#include <utility>

#include "platform/files.h"
#include "platform/machine.h"

namespace Vx::Tessel::Server::Services::Orvane {

namespace {

constexpr wchar_t kNoMark[] = L"Error Finding BOM for file: %s";
constexpr wchar_t kSourceFailed[] = L"Error while copying source file %s";
constexpr wchar_t kDestinationFailed[] = L"Error while copying destination file %s";

}  // namespace

std::wstring ReadTextFile(const std::wstring& path, const wchar_t* caller,
                          const Logging::TraceLogger& logger) {
  const auto content = Platform::CurrentMachine().files->Read(path, kMaxTextFile);
  if (!content) return {};
  auto text = DecodeText(*content);
  if (!text) {
    logger.For(caller).LogWarning(kNoMark, path.c_str());
    return {};
  }
  return *std::move(text);
}

bool CopyFileContent(const std::wstring& source, const std::wstring& destination,
                     const wchar_t* caller, const Logging::TraceLogger& logger) {
  Platform::Files& files = *Platform::CurrentMachine().files;
  const auto content = files.Read(source, kMaxTextFile);
  if (!content) {
    logger.For(caller).LogError(kSourceFailed, source.c_str());
    return false;
  }
  if (files.Overwrite(destination, *content) != 0) {
    logger.For(caller).LogError(kDestinationFailed, destination.c_str());
    return false;
  }
  return true;
}

}  // namespace Vx::Tessel::Server::Services::Orvane
