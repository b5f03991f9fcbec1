#include "api/json_value.h"

#include <gtest/gtest.h>

#include <string>

namespace orv {
namespace {

TEST(JsonValueFormatted, NestedLevelsIndentOneTabPerLevel) {
  JsonValue transfer = JsonValue::Object();
  transfer.add("bytesTransferred", JsonValue::Number(uint64_t{18446744073709551615u}));
  transfer.add("totalSize", JsonValue::Number(int64_t{-1}));
  JsonValue volume = JsonValue::Object();
  volume.add("volume", JsonValue::String("u1"));
  volume.add("transfer", transfer);
  JsonValue details = JsonValue::Array();
  details.push(volume);
  details.push(JsonValue::Boolean(false));
  details.push(JsonValue::Null());
  JsonValue document = JsonValue::Object();
  document.add("details", details);
  EXPECT_EQ(document.WriteFormatted(),
            "{\n"
            "\t\"details\" : [\n"
            "\t\t{\n"
            "\t\t\t\"volume\" : \"u1\",\n"
            "\t\t\t\"transfer\" : {\n"
            "\t\t\t\t\"bytesTransferred\" : 18446744073709551615,\n"
            "\t\t\t\t\"totalSize\" : -1\n"
            "\t\t\t}\n"
            "\t\t},\n"
            "\t\tfalse,\n"
            "\t\tnull\n"
            "\t]\n"
            "}");
}

TEST(JsonValueFormatted, EmptyContainersStartingLevelAndCompactForm) {
  JsonValue document = JsonValue::Object();
  document.add("errorParams", JsonValue::Array());
  document.add("errorData", JsonValue::Object());
  EXPECT_EQ(JsonValue::Object().WriteFormatted(), "{}");
  EXPECT_EQ(JsonValue::Array().WriteFormatted(), "[]");
  EXPECT_EQ(document.WriteFormatted(), "{\n\t\"errorParams\" : [],\n\t\"errorData\" : {}\n}");
  // A starting level indents the members and the closing brace.
  JsonValue flag = JsonValue::Object();
  flag.add("a", JsonValue::Boolean(true));
  EXPECT_EQ(flag.WriteFormatted(2), "{\n\t\t\t\"a\" : true\n\t\t}");
  JsonValue compact = JsonValue::Object();
  compact.add("a", JsonValue::Number(1));
  JsonValue list = JsonValue::Array();
  list.push(JsonValue::String("x"));
  compact.add("b", list);
  EXPECT_EQ(compact.WriteCompact(), "{\"a\":1,\"b\":[\"x\"]}");
}

TEST(JsonValueFormatted, NamesAndValuesAreEscaped) {
  JsonValue document = JsonValue::Object();
  document.add("m", JsonValue::String("a\tb\nc\bd\fe\"f\\g/h"));
  // Control characters without a short escape use unicode escapes.
  document.add("k\"ey\t", JsonValue::String(std::string("\r\x01\x1f", 3)));
  EXPECT_EQ(document.WriteFormatted(),
            "{\n\t\"m\" : \"a\\tb\\nc\\bd\\fe\\\"f\\\\g/h\",\n\t\"k\\\"ey\\t\" : \"\\r\\u0001\\u001f\"\n}");
}

TEST(JsonValueParse, RoundTripKeepsOrderTypesAndNumberText) {
  const std::string text = "{\"b\": 1.50, \"a\": [true, null, \"s\", -0, 1e+3], \"n\": {}}";
  JsonValue document = JsonValue::Parse(text);
  ASSERT_TRUE(document.isObject());
  ASSERT_EQ(document.size(), 3u);
  EXPECT_EQ(document.children()[0].name(), "b");
  EXPECT_EQ(document.children()[1].name(), "a");
  EXPECT_EQ(document.find("b")->text(), "1.50");
  const JsonValue* list = document.find("a");
  ASSERT_TRUE(list != nullptr && list->isArray());
  EXPECT_TRUE(list->children()[0].isBoolean());
  EXPECT_TRUE(list->children()[1].isNull());
  EXPECT_TRUE(list->children()[2].isString());
  EXPECT_EQ(list->children()[3].text(), "-0");
  EXPECT_EQ(list->children()[4].text(), "1e+3");
  EXPECT_EQ(document.WriteCompact(), "{\"b\":1.50,\"a\":[true,null,\"s\",-0,1e+3],\"n\":{}}");
}

TEST(JsonValueParse, NumberAndNumericStringReadTheSame) {
  JsonValue document = JsonValue::Parse("{\"lun\": 7, \"offset\": \"7\", \"bad\": \"x7\", \"big\": 4294967338}");
  EXPECT_EQ(document.find("lun")->getInt(), 7);
  EXPECT_EQ(document.find("offset")->getInt(), 7);
  EXPECT_EQ(document.find("bad")->getInt(), 0);
  EXPECT_EQ(document.find("big")->getInt(), 4294967338);
  EXPECT_TRUE(document.find("lun")->isNumber());
  EXPECT_TRUE(document.find("offset")->isString());
}

TEST(JsonValueParse, StringEscapesAndSurrogatePairs) {
  JsonValue document = JsonValue::Parse(R"(["\"\\\/\b\f\n\r\t", "\u00e9\u20ac", "\ud83d\ude00"])");
  EXPECT_EQ(document.children()[0].text(), "\"\\/\b\f\n\r\t");
  EXPECT_EQ(document.children()[1].text(), "\xc3\xa9\xe2\x82\xac");
  EXPECT_EQ(document.children()[2].text(), "\xf0\x9f\x98\x80");
}

TEST(JsonValueParse, RefusesHostileAndMalformedText) {
  const char* bad[] = {
      "", "   ", "42", "\"text\"", "true", "{", "{\"a\"", "{\"a\":", "{\"a\":1", "{\"a\":1,}", "[1,]", "[1 2]",
      "{a:1}", "{\"a\" 1}", "{\"a\":1}}", "{\"a\":1} x", "[\"unterminated]", "[\"\\x\"]", "[\"\\u12\"]",
      "[\"\\u12g4\"]", "[\"\\ud800\"]", "[\"\\ud800\\u0041\"]", "[\"\\udc00\"]", "[\"tab\there\"]", "[01]", "[1.]",
      "[.5]", "[1e]", "[-]", "[+1]", "[tru]", "[nul]", "[NaN]", "// c\n{}",
  };
  for (const char* text : bad) {
    EXPECT_FALSE(JsonValue::Validate(text)) << text;
    EXPECT_THROW(JsonValue::Parse(text), JsonError) << text;
  }
}

TEST(JsonValueParse, NestingIsBoundedWithoutExhaustingTheStack) {
  std::string fine = std::string(500, '[') + std::string(500, ']');
  EXPECT_TRUE(JsonValue::Validate(fine));
  EXPECT_NO_THROW(JsonValue::Parse(fine));
  std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_FALSE(JsonValue::Validate(deep));
  EXPECT_THROW(JsonValue::Parse(deep), JsonError);
  std::string truncated(1 << 20, '{');
  EXPECT_FALSE(JsonValue::Validate(truncated));
}

TEST(JsonValueParse, ErrorsNameTheOffset) {
  try {
    JsonValue::Parse("{\"a\":1,\"b\"}");
    FAIL();
  } catch (const JsonError& e) {
    EXPECT_NE(std::string(e.what()).find("offset 10"), std::string::npos) << e.what();
  }
}

TEST(JsonValueStrip, DropsBlanksOutsideStringsOnly) {
  EXPECT_EQ(JsonValue::Strip(" {\t\"a b\" :\r\n [ 1 , \"x\\\" y\" ] } "), "{\"a b\":[1,\"x\\\" y\"]}");
  // A body that is only valid once stripped, as the request check allows.
  std::string spaced = "{\"deviceID\": 4 2}";
  EXPECT_FALSE(JsonValue::Validate(spaced));
  EXPECT_TRUE(JsonValue::Validate(JsonValue::Strip(spaced)));
  EXPECT_EQ(JsonValue::Parse(JsonValue::Strip(spaced)).find("deviceID")->getInt(), 42);
}

TEST(JsonValueAccess, TypedGettersAndFind) {
  JsonValue document = JsonValue::Parse("{\"t\":true,\"f\":\"false\",\"n\":2.5,\"o\":{\"x\":1},\"d\":1,\"d\":2}");
  EXPECT_TRUE(document.find("t")->getBool());
  EXPECT_FALSE(document.find("f")->getBool());
  EXPECT_DOUBLE_EQ(document.find("n")->getDouble(), 2.5);
  EXPECT_EQ(document.find("o")->text(), "");
  EXPECT_EQ(document.find("o")->getInt(), 0);
  EXPECT_EQ(document.find("d")->getInt(), 1);  // the first member of a repeated name
  EXPECT_EQ(document.find("missing"), nullptr);
}

TEST(JsonValueNumber, DoublesUseShortestTextAndNonFiniteBecomesNull) {
  EXPECT_EQ(JsonValue::Number(0.1).text(), "0.1");
  EXPECT_EQ(JsonValue::Number(1.0 / 0.0).WriteCompact(), "null");
}

}  // namespace
}  // namespace orv
