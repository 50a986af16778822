#include "vxhost/commands/commands.h"

#include <cstdio>
#include <stdexcept>

#include "hosting/text.h"
#include "json/json_text.h"
#include "vxhost/store/store.h"

#include <rapidjson/prettywriter.h>

namespace Vx::Hosting::Tool {

namespace {

using Json::WideDocument;

// Returns the document's text, indented for people.
std::wstring Indented(const WideDocument& document) {
  Json::TextBuffer buffer;
  Json::ScratchMemory scratch;
  rapidjson::PrettyWriter<Json::TextBuffer, Json::WideEncoding, Json::WideEncoding,
                          Json::ScratchMemory>
      writer(buffer, &scratch);
  writer.SetIndent(L' ', 2);
  document.Accept(writer);
  return std::wstring(buffer.View());
}

void Print(const WideDocument& document, Console& console) {
  console.JsonResult(console.WritesJson() ? Json::JsonText(document) : Indented(document));
}

struct Options {
  std::string file;
};

int Show(const Options&, const ModuleOptions& module, Console& console) {
  std::size_t left = 0;
  Print(StoreContent(LookAtStore(module.limits), ShownValues::All, left), console);
  return kDone;
}

int Export(const Options& options, const ModuleOptions& module, Console& console) {
  std::size_t left = 0;
  const WideDocument values = StoreContent(LookAtStore(module.limits), ShownValues::Exported, left);
  if (options.file.empty()) {
    Print(values, console);
  } else {
    WriteTextFile(FullPath(options.file), Utf8(Indented(values)) + "\n");
    console.Note("written to " + options.file);
  }
  if (left != 0) std::fprintf(stderr, "%zu values of other services were left out\n", left);
  return kDone;
}

int Verify(const Options& options, const ModuleOptions& module, Console& console) {
  const StoreLook look =
      options.file.empty() ? LookAtStore(module.limits) : LookAtFile(FullPathOfFile(options.file));
  const StoreVerdict verdict = Diagnose(look, options.file.empty() ? Owner::Trusted : Owner::Any);
  std::vector<std::string> lines{Utf8(look.path) + ": " + verdict.text};
  for (const std::wstring& path : look.siblings) {
    lines.push_back("next to it: " + Utf8(path) +
                    (path.ends_with(L".new") ? ", an interrupted write" : ""));
  }
  console.Show({{L"path", look.path},
                {L"state", verdict.state},
                {L"text", verdict.text},
                {L"beside", look.siblings}},
               lines);
  return verdict.IsSound() ? kDone : kNotMet;
}

// Reports the path under which the replaced store was kept.
int Replaced(const std::wstring& kept, Console& console) {
  console.Show({{L"kept", kept}},
               {kept.empty() ? "done; there was no store before"
                             : "done; the previous store is kept as " + Utf8(kept)});
  return kDone;
}

int BackUp(const Options& options, const ModuleOptions& module, Console& console) {
  const std::wstring path = FullPath(options.file);
  BackUpStore(path, module.limits);
  console.Note("written to " + Utf8(path));
  return kDone;
}

int Restore(const Options& options, const ModuleOptions& module, Console& console) {
  return Replaced(RestoreStore(FullPathOfFile(options.file), module.limits), console);
}

int Import(const Options& options, const ModuleOptions& module, Console& console) {
  const std::wstring text = ReadTextFile(FullPathOfFile(options.file));
  WideDocument document;
  Json::ParseFault fault;
  if (!Json::ParseJson(document, text, Json::kMaxNesting, &fault)) {
    throw std::runtime_error("not valid JSON: " + FaultText(text, fault));
  }
  return Replaced(ImportValues(document, module.limits), console);
}

constexpr char kShowFooter[] =
    "Reads %ProgramData%\\Vx\\SharedServices\\shared_store.dat of this machine without changing "
    "it.\n"
    "  vxhost store show > store.json";
constexpr char kVerifyFooter[] =
    "Reports what is wrong with the store, or with a copy of it. Changes nothing.\n"
    "Exit code 1 when it is not sound.\n"
    "  vxhost store verify\n"
    "  vxhost store verify backup.dat";
constexpr char kBackupFooter[] =
    "The copy can be read on this machine only. The file must not exist.\n"
    "  vxhost store backup backup.dat";
constexpr char kRestoreFooter[] =
    "Checks the copy first and keeps what it replaces next to the store. A running service\n"
    "reads it at its next access.\n"
    "  vxhost store restore backup.dat";
constexpr char kExportFooter[] =
    "Prints this module's values in the form of \"store show\", or writes them into FILE. Values "
    "of\n"
    "other services, which may be secret, are left out. Any machine can import it.\n"
    "  vxhost store export values.json";
constexpr char kImportFooter[] =
    "Checks all values first and keeps the previous store next to it.\n"
    "  vxhost store import values.json";

enum class File { None, Optional, Required };

}  // namespace

void AddStoreCommands(CommandLine& line) {
  CLI::App& group = line.AddGroup("store", "the shared store");
  const auto add = [&](const CommandText& text, CommandLine::Run<Options> run, File file) {
    const auto [command, options] =
        line.Add(text, run, Shared::Store | Shared::Timeout | Shared::Json, &group);
    if (file == File::None) return;
    command.add_option("file", options.file, "a copy of the store's file, or exported values")
        ->required(file == File::Required);
  };
  add({"show", "print the decrypted store as JSON, each value with its type", kShowFooter}, &Show,
      File::None);
  add({"verify", "report whether the store is sound, and what is wrong with it", kVerifyFooter},
      &Verify, File::Optional);
  add({"backup", "copy the store's file", kBackupFooter}, &BackUp, File::Required);
  add({"restore", "replace the store with a copy of it", kRestoreFooter}, &Restore, File::Required);
  add({"export", "print this module's values of the store as JSON", kExportFooter}, &Export,
      File::Optional);
  add({"import", "put exported values into the store", kImportFooter}, &Import, File::Required);
}

}  // namespace Vx::Hosting::Tool
