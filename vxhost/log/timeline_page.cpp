#include "vxhost/log/timeline_page.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <string_view>
#include <vector>

#include "hosting/text.h"
#include "json/json_text.h"
#include "vxhost/log/timeline_template.h"

namespace Vx::Host {

namespace {

constexpr std::string_view kPlaceOfData = "{{data}}";

// By their enumerations; classes of the page's style.
constexpr const wchar_t* kTones[] = {L"neutral", L"good", L"bad", L"dropped"};
constexpr const wchar_t* kBars[] = {L"wait", L"sleep", L"standby"};

// JSON for a script element. Without a '<' no text can end the element or begin a comment in it.
struct ScriptText {
  using Ch = wchar_t;
  void Put(wchar_t unit) {
    if (unit == L'<') {
      text += L"\\u003c";
    } else {
      text += unit;
    }
  }
  static void Flush() {}

  std::wstring text;
};

// Writes what the script reads: arrays whose order it knows.
class DataWriter {
 public:
  std::string Write(const PageHead& head, const Picture& picture) {
    json.StartObject();
    Member(L"title", head.title);
    Member(L"verdict", head.verdict);
    Member(L"met", head.met);
    Member(L"end", picture.end);
    Member(L"lanes", picture.lanes);
    Member(L"bars", picture.bars);
    Member(L"headings", picture.headings);
    Member(L"marks", picture.marks);
    Member(L"messages", messages);
    json.EndObject();
    return Utf8(out.text);
  }

 private:
  template <typename Type>
  void Member(const wchar_t* name, const Type& value) {
    out.Put(L'\n');
    json.Key(name);
    Put(value);
  }

  void Put(bool value) { json.Bool(value); }
  void Put(std::size_t value) { json.Uint64(value); }
  void Put(std::chrono::milliseconds value) { json.Int64(value.count()); }
  void Put(const wchar_t* text) { json.String(text); }
  void Put(const std::wstring& text) {
    json.String(Wide(Printable(Utf8(text), LineBreaks::Replace)));
  }
  void Put(const PictureLane& lane) { Row(lane.name, lane.detail); }
  void Put(const PictureBar& bar) {
    Row(bar.lane, kBars[static_cast<std::size_t>(bar.kind)], bar.from, bar.to, bar.open, bar.text);
  }
  void Put(const PictureHeading& heading) { Row(heading.mark, heading.text); }
  // Each message is written once: a log repeats few of them thousands of times.
  void Put(const PictureLine& line) {
    const auto [known, isNew] = numbers.try_emplace(line.message, messages.size());
    if (isNew) messages.push_back(line.message);
    Row(line.first, line.last, line.count, line.level, line.caller, known->second);
  }
  void Put(const PictureMark& mark) {
    Row(mark.lane, mark.at, kTones[static_cast<std::size_t>(mark.tone)], mark.text, mark.reason,
        mark.lines);
  }

  template <typename Type>
  void Put(const std::vector<Type>& values) {
    json.StartArray();
    for (const Type& value : values) Put(value);
    json.EndArray();
  }

  // Each on a line of its own, so that the data can be read where no script runs.
  template <typename... Types>
  void Row(const Types&... values) {
    out.Put(L'\n');
    json.StartArray();
    (Put(values), ...);
    json.EndArray();
  }

  ScriptText out;
  rapidjson::Writer<ScriptText, Json::WideEncoding, Json::WideEncoding, Json::ScratchMemory> json{
      out};
  std::map<std::wstring, std::size_t> numbers;  // of messages
  std::vector<std::wstring> messages;
};

}  // namespace

std::string TimelinePage(const PageHead& head, const Picture& picture) {
  std::string page = kTimelineTemplate;
  return page.replace(page.find(kPlaceOfData), kPlaceOfData.size(),
                      DataWriter().Write(head, picture));
}

}  // namespace Vx::Host
