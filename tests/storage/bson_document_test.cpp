#include "storage/bson_document.h"

#include "support/test.h"

namespace Vx::Tessel::Server::Storage {

namespace {

using namespace std::literals;
using Bytes = std::vector<std::byte>;

Bytes ToBytes(std::string_view text) {
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}

std::string LittleEndian(std::size_t value) {
  std::string out;
  for (int shift = 0; shift < 32; shift += 8) out.push_back(static_cast<char>(value >> shift));
  return out;
}

std::string Document(std::string_view elements) {
  return LittleEndian(elements.size() + 5) + std::string(elements) + '\0';
}

std::string ScopedCode(std::string_view code, std::string_view scope) {
  const std::string body =
      LittleEndian(code.size() + 1) + std::string(code) + '\0' + std::string(scope);
  return LittleEndian(body.size() + 4) + body;
}

bool Decodes(std::string_view text) {
  return BsonDocument::Decode(ToBytes(text)).has_value();
}

std::string Encoding(const BsonDocument& document) {
  const auto bytes = document.Encoded();
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

const std::string& EveryKind() {
  static const std::string kElements =
      "\001double\0\0\0\0\0\0\0\370\077"s + "\002text\0\004\0\0\0a\0b\0"s + "\003doc\0"s +
      Document("\012n\0"sv) + "\004array\0"s + Document("\0200\0\001\0\0\0\0101\0\001"sv) +
      "\005binary\0\002\0\0\0\200ab"s + "\005old\0\006\0\0\0\002\002\0\0\0ab"s +
      "\006undefined\0"s + "\007oid\000123456789012"s + "\010bool\0\001"s +
      "\011date\00012345678"s + "\012null\0"s + "\013regex\0^a\377\0i\0"s +
      "\014pointer\0\002\0\0\0c\000123456789012"s + "\015code\0\003\0\0\0f(\0"s +
      "\016symbol\0\001\0\0\0\0"s + "\017scoped\0"s + ScopedCode("f"sv, Document("\012n\0"sv)) +
      "\020int32\0\376\377\377\377"s + "\021time\00012345678"s + "\022int64\0\0\0\0\0\001\0\0\0"s +
      "\023decimal\0001234567890123456"s + "\377min\0"s + "\177max\0"s;
  return kElements;
}

TEST(BsonDocument, ReadsTheKindsOfItsOwn) {
  const auto document = BsonDocument::Decode(ToBytes(Document(EveryKind())));
  ASSERT_TRUE(document);
  EXPECT_EQ(document->Size(), 22U);
  EXPECT_EQ(document->Find("double")->AsDouble(), 1.5);
  EXPECT_EQ(document->Find("text")->AsText(), "a\0b"sv);
  EXPECT_EQ(document->Find("text")->AsWideText(), std::wstring(L"a\0b", 3));
  EXPECT_EQ(document->Find("bool")->AsBoolean(), true);
  EXPECT_EQ(document->Find("int32")->AsInt32(), -2);
  EXPECT_EQ(document->Find("int64")->AsInt64(), std::int64_t{1} << 32);
  EXPECT_EQ(document->Find("doc")->AsDocument()->Find("n")->Kind(), BsonKind::Null);
  EXPECT_EQ(document->Find("absent"), std::nullopt);
  EXPECT_EQ(document->Find("int32")->AsInt64(), std::nullopt);
  EXPECT_EQ(document->Find("array")->AsDocument(), std::nullopt);
}

TEST(BsonDocument, CarriesEveryKindByteForByteThroughChangesAroundIt) {
  const std::string first("\020own\0\001\0\0\0"sv);
  auto document = BsonDocument::Decode(ToBytes(Document(first + EveryKind())));
  ASSERT_TRUE(document);
  ASSERT_TRUE(document->Set("own", BsonElement::Text(L"\u00E9 and more")));
  ASSERT_TRUE(document->Set("new", BsonElement::Boolean(true)));
  const std::string longer("\002own\0\014\0\0\0\303\251 and more\0"sv);
  const std::string added("\010new\0\001"sv);
  EXPECT_EQ(Encoding(*document), Document(longer + EveryKind() + added));
  ASSERT_TRUE(document->Set("own", BsonElement()));
  document->Erase("new");
  EXPECT_EQ(Encoding(*document), Document("\012own\0"s + EveryKind()));
  document->Erase("own");
  EXPECT_EQ(Encoding(*document), Document(EveryKind()));
}

TEST(BsonDocument, RefusesEveryPrefixOfADocumentAndWhatGoesOnBehindIt) {
  const std::string whole = Document(EveryKind());
  for (std::size_t size = 0; size < whole.size(); ++size) {
    EXPECT_FALSE(Decodes(whole.substr(0, size))) << size;
    // Truncated, with the leading length adjusted to match.
    const std::string cut = whole.substr(0, size) + '\0';
    if (size < 5) continue;
    const auto document = BsonDocument::Decode(ToBytes(LittleEndian(cut.size()) + cut.substr(4)));
    EXPECT_LE(document ? document->Size() : 0, 22U) << size;
  }
  EXPECT_FALSE(Decodes(whole + '\0'));
  EXPECT_FALSE(Decodes("\004\0\0\0\0"sv));
  EXPECT_TRUE(Decodes(Document({})));
}

TEST(BsonDocument, RefusesMembersThatCannotBeToldApart) {
  static const std::pair<const char*, std::string> kCases[] = {
      {"unknown kind", "\024k\0"s},
      {"kind zero", "\0k\0"s},
      {"unterminated key", "\012k"s},
      {"boolean without a value", "\010k\0"s},
      {"truncated number", "\020k\0\001\0\0"s},
      {"text without a length", "\002k\0\001\0\0"s},
      {"text longer than the document", "\002k\0\377\377\377\177a\0"s},
      {"text that reaches the terminator", "\002k\0\003\0\0\0a\0"s},
      {"pointer without an id", "\014k\0\002\0\0\0c\0"s},
      {"binary longer than the document", "\005k\0\003\0\0\0\0ab"s},
      {"expression without its options", "\013k\0a\0i"s},
      {"document that does not count its length", "\003k\0\003\0\0\0"s},
      {"document longer than its container", "\003k\0\007\0\0\0\0"s},
      {"document of negative length", "\003k\0\373\377\377\377\0"s},
      {"scope longer than the document", "\017k\0\006\0\0\0\0"s},
  };
  for (const auto& [name, element] : kCases) {
    SCOPED_TRACE(name);
    EXPECT_FALSE(Decodes(Document(element)));
    // Another service's document is not examined until a getter reads it.
    const auto around = BsonDocument::Decode(ToBytes(Document("\003outer\0"s + Document(element))));
    ASSERT_TRUE(around);
    EXPECT_EQ(around->Find("outer")->AsDocument(), std::nullopt);
  }
}

TEST(BsonDocument, CarriesValuesThatItsGettersRefuse) {
  static const std::pair<const char*, std::string> kCases[] = {
      {"boolean of 2", "\010k\0\002"s},
      {"text of length 0", "\002k\0\0\0\0\0"s},
      {"text without a terminator", "\002k\0\001\0\0\0a"s},
      {"text that is not UTF-8", "\002k\0\002\0\0\0\377\0"s},
      {"old binary with a wrong inner length", "\005k\0\006\0\0\0\002\003\0\0\0ab"s},
      {"document shorter than any", "\003k\0\004\0\0\0"s},
      {"document without a terminator", "\003k\0\005\0\0\0\001"s},
      {"array with a broken element", "\004k\0"s + Document("\0100\0\007"sv)},
      {"scope that is too short for its code", "\017k\0\010\0\0\0\377\0\0\0"s},
  };
  for (const auto& [name, element] : kCases) {
    SCOPED_TRACE(name);
    auto document = BsonDocument::Decode(ToBytes(Document(element + "\020\377\200\0\001\0\0\0"s)));
    ASSERT_TRUE(document);
    const BsonView value = *document->Find("k");
    EXPECT_EQ(value.AsText(), std::nullopt);
    EXPECT_EQ(value.AsBoolean(), std::nullopt);
    EXPECT_EQ(value.AsDocument(), std::nullopt);
    EXPECT_EQ(document->Find("\377\200")->AsInt32(), 1);
    ASSERT_TRUE(document->Set("own", BsonElement()));
    EXPECT_EQ(Encoding(*document), Document(element + "\020\377\200\0\001\0\0\0"s + "\012own\0"s));
  }
}

TEST(BsonDocument, DoesNotFollowNesting) {
  constexpr std::size_t kLevels = 100000;
  constexpr std::size_t kPerLevel = 8;  // kind, one-letter key, length, terminator
  std::string text;
  for (std::size_t i = 0; i < kLevels; ++i) {
    text += LittleEndian(5 + (kLevels - i) * kPerLevel) + "\003d\0"s;
  }
  text += LittleEndian(5) + std::string(kLevels + 1, '\0');
  const auto document = BsonDocument::Decode(ToBytes(text));
  ASSERT_TRUE(document);
  EXPECT_EQ(document->Find("d")->AsDocument()->Encoded().size(), text.size() - kPerLevel);
}

TEST(BsonDocument, FindsTheFirstOfRepeatedKeysAndSettingLeavesOne) {
  const std::string repeated =
      Document("\020k\0\001\0\0\0\012other\0\020k\0\002\0\0\0\010k\0\001"sv);
  auto document = BsonDocument::Decode(ToBytes(repeated));
  ASSERT_TRUE(document);
  EXPECT_EQ(document->Find("k")->AsInt32(), 1);
  EXPECT_EQ(Encoding(*document), repeated);
  ASSERT_TRUE(document->Set("k", BsonElement::Int32(3)));
  EXPECT_EQ(Encoding(*document), Document("\020k\0\003\0\0\0\012other\0"sv));
}

TEST(BsonDocument, RemovesRepeatedKeysInTimeThatGrowsWithTheirNumberAlone) {
  using std::chrono::steady_clock;
  constexpr int kRepeated = 50'000;
  std::string members;
  for (int i = 0; i < kRepeated; ++i) members += "\012k\0\012other\0"sv;
  for (const bool set : {true, false}) {
    // Takes the best of several runs, because the system may suspend this thread in any of them.
    auto decoding = steady_clock::duration::max();
    auto change = decoding;
    for (int i = 0; i < 5; ++i) {
      const auto begin = steady_clock::now();
      auto document = BsonDocument::Decode(ToBytes(Document(members)));
      const auto decoded = steady_clock::now();
      ASSERT_TRUE(document);
      ASSERT_TRUE(!set || document->Set("k", BsonElement::Int32(3)));
      if (!set) document->Erase("k");
      change = std::min(change, steady_clock::now() - decoded);
      decoding = std::min(decoding, decoded - begin);
      EXPECT_EQ(document->Size(), std::size_t{kRepeated} + (set ? 1 : 0));
      EXPECT_EQ(document->Find("k").has_value(), set);
    }
    // Removing each key by itself takes some 300 times as long.
    EXPECT_LT(change, 50 * decoding);
  }
}

TEST(BsonDocument, RefusesKeysAndTextsThatTheEncodingCannotHold) {
  BsonDocument document;
  EXPECT_FALSE(document.Set("a\0b"sv, BsonElement()));
  EXPECT_FALSE(document.Set("\377", BsonElement()));
  EXPECT_TRUE(document.Empty());
  EXPECT_EQ(BsonElement::Text("\377"sv).View().AsText(), "\357\277\275"sv);
  EXPECT_TRUE(document.Set("", BsonElement()));
  EXPECT_TRUE(Decodes(Encoding(document)));
}

}  // namespace

}  // namespace Vx::Tessel::Server::Storage
