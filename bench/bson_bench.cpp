// Compares decoding with libbson, which built the bytes: both copy a document and split it.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include <bson/bson.h>

#include "bench/ratio_table.h"
#include "storage/bson_document.h"

namespace {

using namespace Vx::Bench;
using Vx::Tessel::Server::Storage::BsonDocument;

using Bytes = std::vector<std::byte>;

// Returns the bytes of a document that `fill` fills.
template <typename Fill>
Bytes Build(const Fill& fill) {
  bson_t document = BSON_INITIALIZER;
  fill(&document);
  const auto* const data = reinterpret_cast<const std::byte*>(bson_get_data(&document));
  Bytes bytes(data, data + document.len);
  bson_destroy(&document);
  return bytes;
}

// Returns a document with many small members of several kinds.
Bytes Flat(int members) {
  return Build([members](bson_t* document) {
    for (int i = 0; i < members; ++i) {
      const std::string key = "key" + std::to_string(i);
      switch (i % 5) {
        case 0:
          BSON_APPEND_UTF8(document, key.c_str(), "a text of moderate length, plain ASCII");
          break;
        case 1:
          BSON_APPEND_INT32(document, key.c_str(), i);
          break;
        case 2:
          BSON_APPEND_INT64(document, key.c_str(), std::int64_t{i} << 33);
          break;
        case 3:
          BSON_APPEND_BOOL(document, key.c_str(), true);
          break;
        default:
          BSON_APPEND_DOUBLE(document, key.c_str(), 0.5);
      }
    }
  });
}

void AppendDocument(bson_t* outer, const char* key, const Bytes& inner) {
  bson_t view;
  bson_init_static(&view, reinterpret_cast<const std::uint8_t*>(inner.data()), inner.size());
  BSON_APPEND_DOCUMENT(outer, key, &view);
}

Bytes Deep(int levels) {
  Bytes document = Flat(3);
  for (int i = 0; i < levels; ++i) {
    document = Build([&](bson_t* outer) {
      BSON_APPEND_INT32(outer, "level", i);
      AppendDocument(outer, "inner", document);
    });
  }
  return document;
}

// Returns a document like the store's: a few flags, and each list as one long string.
Bytes StateLike(std::size_t textLength) {
  const Bytes own = Build([textLength](bson_t* members) {
    BSON_APPEND_INT32(members, "FirstSystemEnforcementMode", 2);
    BSON_APPEND_BOOL(members, "ExecutedMcAfeeStub", true);
    BSON_APPEND_UTF8(members, "born_on_date", "20240229");
    std::string list;
    while (list.size() < textLength) list += "{\"powerEventType\":7,\"path\":\"C:\\\\tool.exe\"},";
    BSON_APPEND_UTF8(members, "PowerEventSubscriptions", list.c_str());
  });
  return Build([&own](bson_t* document) {
    AppendDocument(document, "OrvaneServiceDocument", own);
    BSON_APPEND_INT64(document, "OrvaneLastBootTime", 1700000000);
    BSON_APPEND_BOOL(document, "oobe_complete_event_sent_to_quboapp", true);
  });
}

void CompareDecode(RatioTable& table, const std::string& name, const Bytes& bytes,
                   std::size_t perTurn) {
  table.Compare(
      "decode " + name + ", " + std::to_string(bytes.size()) + " B", "libbson: copy, walk", 1.00,
      perTurn,
      [&] {
        auto decoded = BsonDocument::Decode(bytes);
        if (!decoded) throw std::runtime_error("does not decode");
        Keep(*decoded);
      },
      [&] {
        bson_t* const copy =
            bson_new_from_data(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
        bson_iter_t member;
        bson_iter_init(&member, copy);
        while (bson_iter_next(&member)) Keep(member);
        bson_destroy(copy);
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
  });
}
