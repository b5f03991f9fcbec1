#include "api/json_value.h"

#include <gtest/gtest.h>

#include <string>

namespace orv {
namespace {

// Nested documents' formatting is pinned by the REST system tests; round trips and
// Validate/Parse/Strip agreement by the JSON fuzz target.
TEST(JsonValueWrite, EdgesOfTheFormattedAndCompactForms) {
  JsonValue document = JsonValue::Object();
  document.add("errorParams", JsonValue::Array());
  document.add("errorData", JsonValue::Object());
  document.add("big", JsonValue::Number(uint64_t{18446744073709551615u}));
  document.add("m", JsonValue::String("a\tb\nc\bd\fe\"f\\g/h"));
  // Control characters without a short escape use unicode escapes, in names too.
  document.add("k\"ey\t", JsonValue::String(std::string("\r\x01\x1f", 3)));
  EXPECT_EQ(document.WriteFormatted(),
            "{\n\t\"errorParams\" : [],\n\t\"errorData\" : {},\n\t\"big\" : 18446744073709551615,\n"
            "\t\"m\" : \"a\\tb\\nc\\bd\\fe\\\"f\\\\g/h\",\n\t\"k\\\"ey\\t\" : \"\\r\\u0001\\u001f\"\n}");
  EXPECT_EQ(JsonValue::Object().WriteFormatted(), "{}");
  // A starting level indents the members and the closing brace.
  JsonValue flag = JsonValue::Object();
  flag.add("a", JsonValue::Boolean(true));
  EXPECT_EQ(flag.WriteFormatted(2), "{\n\t\t\t\"a\" : true\n\t\t}");
  JsonValue list = JsonValue::Array();
  list.push(JsonValue::String("x"));
  list.push(JsonValue::Null());
  list.push(JsonValue::Number(0.1));
  list.push(JsonValue::Number(1.0 / 0.0));  // not finite: null
  EXPECT_EQ(list.WriteCompact(), "[\"x\",null,0.1,null]");
}

TEST(JsonValueParse, KeepsOrderNumberTextAndEscapes) {
  JsonValue document = JsonValue::Parse("{\"b\": 1.50, \"a\": [true, null, \"s\", -0, 1e+3], \"n\": {}}");
  EXPECT_EQ(document.WriteCompact(), "{\"b\":1.50,\"a\":[true,null,\"s\",-0,1e+3],\"n\":{}}");
  JsonValue escapes = JsonValue::Parse(R"(["\"\\\/\b\f\n\r\t", "\u00e9\u20ac", "\ud83d\ude00"])");
  EXPECT_EQ(escapes.children()[0].text(), "\"\\/\b\f\n\r\t");
  EXPECT_EQ(escapes.children()[1].text(), "\xc3\xa9\xe2\x82\xac");
  EXPECT_EQ(escapes.children()[2].text(), "\xf0\x9f\x98\x80");
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
  try {
    JsonValue::Parse("{\"a\":1,\"b\"}");
    ADD_FAILURE() << "parsed";
  } catch (const JsonError& e) {
    EXPECT_NE(std::string(e.what()).find("offset 10"), std::string::npos) << e.what();
  }
}

TEST(JsonValueParse, NestingIsBoundedWithoutExhaustingTheStack) {
  std::string fine = std::string(500, '[') + std::string(500, ']');
  EXPECT_TRUE(JsonValue::Validate(fine));
  EXPECT_NO_THROW(JsonValue::Parse(fine));
  std::string deep = std::string(100000, '[') + std::string(100000, ']');
  EXPECT_FALSE(JsonValue::Validate(deep));
  EXPECT_THROW(JsonValue::Parse(deep), JsonError);
  EXPECT_FALSE(JsonValue::Validate(std::string(1 << 20, '{')));
}

TEST(JsonValueAccess, GettersReadNumbersNumericStringsAndTheFirstOfARepeatedName) {
  JsonValue document = JsonValue::Parse(
      "{\"lun\": 7, \"offset\": \"7\", \"bad\": \"x7\", \"big\": 4294967338, \"t\":true, \"f\":\"false\", \"n\":2.5,"
      " \"o\":{\"x\":1}, \"d\":1, \"d\":2}");
  EXPECT_EQ(document.find("lun")->getInt(), 7);
  EXPECT_EQ(document.find("offset")->getInt(), 7);
  EXPECT_EQ(document.find("bad")->getInt(), 0);
  EXPECT_EQ(document.find("big")->getInt(), 4294967338);
  EXPECT_TRUE(document.find("t")->getBool());
  EXPECT_FALSE(document.find("f")->getBool());
  EXPECT_DOUBLE_EQ(document.find("n")->getDouble(), 2.5);
  EXPECT_EQ(document.find("o")->getInt(), 0);
  EXPECT_EQ(document.find("d")->getInt(), 1);
  EXPECT_EQ(document.find("missing"), nullptr);
  // A body that is only valid once stripped, as the request check allows.
  EXPECT_EQ(JsonValue::Strip(" {\t\"a b\" :\r\n [ 1 , \"x\\\" y\" ] } "), "{\"a b\":[1,\"x\\\" y\"]}");
  std::string spaced = "{\"deviceID\": 4 2}";
  EXPECT_FALSE(JsonValue::Validate(spaced));
  EXPECT_EQ(JsonValue::Parse(JsonValue::Strip(spaced)).find("deviceID")->getInt(), 42);
}

}  // namespace
}  // namespace orv
