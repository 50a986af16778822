// The BSON document model against libbson, both reading the same bytes: ours decodes and checks,
// libbson validates with UTF-8; and both build the same documents.
#include <stdexcept>
#include <string>
#include <vector>

#include <bson/bson.h>

#include "bench/ratio_table.h"
#include "storage/bson_document.h"

namespace {

using namespace Vx::Bench;
using Vx::Tessel::Server::Storage::BsonDocument;

std::vector<std::byte> Bytes(const BsonDocument& document) {
  const auto encoded = document.Encoded();
  return {encoded.begin(), encoded.end()};
}

// Many small members of all kinds.
BsonDocument Flat(std::size_t members) {
  BsonDocument document;
  for (std::size_t i = 0; i < members; ++i) {
    const std::string key = "key" + std::to_string(i);
    switch (i % 5) {
      case 0:
        document.AppendText(key, "a text of moderate length, plain ASCII");
        break;
      case 1:
        document.AppendInt32(key, static_cast<std::int32_t>(i));
        break;
      case 2:
        document.AppendInt64(key, static_cast<std::int64_t>(i) << 33);
        break;
      case 3:
        document.AppendBoolean(key, true);
        break;
      default:
        document.AppendDouble(key, 0.5);
    }
  }
  return document;
}

BsonDocument Deep(std::size_t levels) {
  BsonDocument document = Flat(3);
  for (std::size_t i = 0; i < levels; ++i) {
    BsonDocument outer;
    outer.AppendInt32("level", static_cast<std::int32_t>(i));
    outer.AppendDocument("inner", document);
    document = outer;
  }
  return document;
}

// Like the store: a few flags, and lists as one long text each.
BsonDocument StateLike(std::size_t textLength) {
  BsonDocument own;
  own.AppendInt32("FirstSystemEnforcementMode", 2);
  own.AppendBoolean("ExecutedMcAfeeStub", true);
  own.AppendText("born_on_date", "20240229");
  std::string list;
  while (list.size() < textLength) list += "{\"powerEventType\":7,\"path\":\"C:\\\\tool.exe\"},";
  own.AppendText("PowerEventSubscriptions", list);
  BsonDocument document;
  document.AppendDocument("OrvaneServiceDocument", own);
  document.AppendInt64("OrvaneLastBootTime", 1700000000);
  document.AppendBoolean("oobe_complete_event_sent_to_quboapp", true);
  return document;
}

void CompareDecode(RatioTable& table, const std::string& name, const BsonDocument& document,
                   std::size_t perTurn) {
  const auto bytes = Bytes(document);
  table.Compare(
      "decode " + name + ", " + std::to_string(bytes.size()) + " B", "bson_validate with UTF-8",
      0.50, perTurn,
      [&] {
        auto decoded = BsonDocument::Decode(bytes);
        if (!decoded) throw std::runtime_error("does not decode");
        Keep(*decoded);
      },
      [&] {
        bson_t view;
        std::size_t offset = 0;
        if (!bson_init_static(&view, reinterpret_cast<const std::uint8_t*>(bytes.data()),
                              bytes.size()) ||
            !bson_validate(&view, BSON_VALIDATE_UTF8, &offset)) {
          throw std::runtime_error("does not validate");
        }
      });
}

void CompareEncode(RatioTable& table, int members, std::size_t perTurn) {
  std::vector<std::string> keys;
  for (int i = 0; i < members; ++i) keys.push_back("key" + std::to_string(i));
  const std::string text = "a text of moderate length, plain ASCII";
  table.Compare(
      "encode " + std::to_string(members) + " members", "bson_append_*", 0.50, perTurn,
      [&] {
        BsonDocument document;
        for (int i = 0; i < members; i += 2) {
          document.AppendText(keys[static_cast<std::size_t>(i)], text);
          document.AppendInt32(keys[static_cast<std::size_t>(i) + 1], i);
        }
        Keep(document);
      },
      [&] {
        bson_t document = BSON_INITIALIZER;
        for (int i = 0; i < members; i += 2) {
          const auto& first = keys[static_cast<std::size_t>(i)];
          const auto& second = keys[static_cast<std::size_t>(i) + 1];
          bson_append_utf8(&document, first.data(), static_cast<int>(first.size()), text.data(),
                           static_cast<int>(text.size()));
          bson_append_int32(&document, second.data(), static_cast<int>(second.size()), i);
        }
        Keep(document);
        bson_destroy(&document);
      });
}

}  // namespace

int main(int argc, char** argv) {
  return RunBenchmarks(argc, argv, [](RatioTable& table, Effort) {
    CompareDecode(table, "flat", Flat(100), 50);
    CompareDecode(table, "deep", Deep(60), 50);
    CompareDecode(table, "state-like", StateLike(8000), 50);
    CompareDecode(table, "flat", Flat(45000), 1);
    CompareDecode(table, "state-like", StateLike(1000000), 1);
    CompareEncode(table, 200, 20);
    CompareEncode(table, 20'000, 1);
  });
}
