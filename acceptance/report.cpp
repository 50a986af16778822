#include <fstream>
#include <iterator>

#include "acceptance/kit.h"
#include "hosting/text.h"
#include "platform/files.h"
#include "platform/machine.h"

namespace Vx::Acceptance {

namespace {

std::string Hex(const unsigned char* bytes, std::size_t size) {
  std::string text;
  for (std::size_t i = 0; i < size; ++i) {
    constexpr char kDigits[] = "0123456789abcdef";
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 0xF];
  }
  return text;
}

// Returns the build ID that identifies the PDB, as the linker wrote it.
std::string BuildId(const std::wstring& path) {
  std::ifstream file(path.c_str(), std::ios::binary);
  const std::string content(std::istreambuf_iterator<char>(file), {});
  constexpr std::size_t kIdSize = 16;
  const std::size_t found = content.find("RSDS");
  if (found == std::string::npos || content.size() - found < 4 + kIdSize) return "none";
  return Hex(reinterpret_cast<const unsigned char*>(content.data()) + found + 4, kIdSize);
}

}  // namespace

std::string LineOf(const char* word, const char* name, const std::string& reason) {
  std::string line = Hosting::Cell(word, std::size(kNotTried) + 1) + name + ":";
  // Collapses white space, so that the output of a program becomes one line.
  bool blank = true;
  for (const char letter : reason) {
    const bool space = letter == ' ' || letter == '\r' || letter == '\n';
    if (!space) line += (blank ? " " : "") + std::string(1, letter);
    blank = space;
  }
  return Hosting::Printable(line, Hosting::LineBreaks::Replace);
}

std::string Builds() {
  std::string text = WindowsBuild() + "\n";
  for (const wchar_t* name : {L"OrvaneService.dll", L"OrvaneHost.exe", L"vxhost.exe"}) {
    const std::wstring path = KitFile(L"bin\\") + name;
    const auto digest = Platform::CurrentMachine().files->Sha256(path);
    text += Hosting::Utf8(name) + " " VX_VERSION " SHA-256 " +
            (digest ? Hex(reinterpret_cast<const unsigned char*>(digest->data()), digest->size())
                    : "unknown") +
            " build id " + BuildId(path) + "\n";
  }
  return text;
}

}  // namespace Vx::Acceptance
