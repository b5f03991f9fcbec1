#include "api/json_value.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace orv {

namespace {

// Deeper documents are refused rather than risking the stack of a connection thread.
constexpr int kMaxDepth = 512;

// A recursive-descent reader. With `build` false it only checks the text: validating a
// request body of many megabytes must not cost a node per value.
class Parser {
 public:
  Parser(const std::string& text, bool build) : text_(text), build_(build) {}

  JsonValue parseDocument() {
    skipSpace();
    // A document is an object or an array; every body and status file the agent reads
    // is one, and a bare scalar is refused like any other malformed text.
    if (pos_ >= text_.size() || (text_[pos_] != '{' && text_[pos_] != '[')) fail("expected an object or an array");
    JsonValue value = parseValue(0);
    skipSpace();
    if (pos_ != text_.size()) fail("unexpected text after the document");
    return value;
  }

 private:
  [[noreturn]] void fail(const std::string& what) const {
    throw JsonError("JSON parse error at offset " + std::to_string(pos_) + ": " + what);
  }

  void skipSpace() {
    while (pos_ < text_.size()) {
      char c = text_[pos_];
      if (c != ' ' && c != '\t' && c != '\n' && c != '\r') break;
      ++pos_;
    }
  }

  bool consume(const char* word) {
    size_t n = strlen(word);
    if (text_.compare(pos_, n, word) != 0) return false;
    pos_ += n;
    return true;
  }

  JsonValue parseValue(int depth) {
    if (depth > kMaxDepth) fail("document nested too deeply");
    if (pos_ >= text_.size()) fail("unexpected end of text");
    char c = text_[pos_];
    if (c == '{') return parseObject(depth);
    if (c == '[') return parseArray(depth);
    if (c == '"') return JsonValue::String(parseString());
    if (c == '-' || (c >= '0' && c <= '9')) return parseNumber();
    if (consume("true")) return JsonValue::Boolean(true);
    if (consume("false")) return JsonValue::Boolean(false);
    if (consume("null")) return JsonValue::Null();
    fail("unexpected character");
  }

  JsonValue parseObject(int depth) {
    JsonValue object = JsonValue::Object();
    ++pos_;
    skipSpace();
    if (pos_ < text_.size() && text_[pos_] == '}') {
      ++pos_;
      return object;
    }
    for (;;) {
      skipSpace();
      if (pos_ >= text_.size() || text_[pos_] != '"') fail("expected a member name");
      std::string name = parseString();
      skipSpace();
      if (pos_ >= text_.size() || text_[pos_] != ':') fail("expected ':'");
      ++pos_;
      skipSpace();
      JsonValue member = parseValue(depth + 1);
      if (build_) object.add(name, std::move(member));
      skipSpace();
      if (pos_ >= text_.size()) fail("unexpected end of object");
      if (text_[pos_] == ',') {
        ++pos_;
        continue;
      }
      if (text_[pos_] == '}') {
        ++pos_;
        return object;
      }
      fail("expected ',' or '}'");
    }
  }

  JsonValue parseArray(int depth) {
    JsonValue array = JsonValue::Array();
    ++pos_;
    skipSpace();
    if (pos_ < text_.size() && text_[pos_] == ']') {
      ++pos_;
      return array;
    }
    for (;;) {
      skipSpace();
      JsonValue element = parseValue(depth + 1);
      if (build_) array.push(std::move(element));
      skipSpace();
      if (pos_ >= text_.size()) fail("unexpected end of array");
      if (text_[pos_] == ',') {
        ++pos_;
        continue;
      }
      if (text_[pos_] == ']') {
        ++pos_;
        return array;
      }
      fail("expected ',' or ']'");
    }
  }

  unsigned hex4() {
    if (pos_ + 4 > text_.size()) fail("truncated \\u escape");
    unsigned value = 0;
    for (int i = 0; i < 4; ++i) {
      char c = text_[pos_++];
      value <<= 4;
      if (c >= '0' && c <= '9') {
        value |= static_cast<unsigned>(c - '0');
      } else if (c >= 'a' && c <= 'f') {
        value |= static_cast<unsigned>(c - 'a' + 10);
      } else if (c >= 'A' && c <= 'F') {
        value |= static_cast<unsigned>(c - 'A' + 10);
      } else {
        fail("bad hex digit in \\u escape");
      }
    }
    return value;
  }

  static void appendUtf8(std::string& out, unsigned cp) {
    if (cp < 0x80) {
      out += static_cast<char>(cp);
    } else if (cp < 0x800) {
      out += static_cast<char>(0xC0 | (cp >> 6));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
      out += static_cast<char>(0xE0 | (cp >> 12));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (cp >> 18));
      out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (cp & 0x3F));
    }
  }

  std::string parseString() {
    ++pos_;  // opening quote
    std::string out;
    for (;;) {
      if (pos_ >= text_.size()) fail("unterminated string");
      char c = text_[pos_++];
      if (c == '"') return out;
      if (static_cast<unsigned char>(c) < 0x20) fail("control character in string");
      if (c != '\\') {
        out += c;
        continue;
      }
      if (pos_ >= text_.size()) fail("unterminated escape");
      char e = text_[pos_++];
      switch (e) {
        case '"':
        case '\\':
        case '/':
          out += e;
          break;
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          unsigned cp = hex4();
          if (cp >= 0xD800 && cp <= 0xDBFF) {
            if (!consume("\\u")) fail("lone high surrogate");
            unsigned low = hex4();
            if (low < 0xDC00 || low > 0xDFFF) fail("bad low surrogate");
            cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
          } else if (cp >= 0xDC00 && cp <= 0xDFFF) {
            fail("lone low surrogate");
          }
          appendUtf8(out, cp);
          break;
        }
        default:
          fail("unknown escape");
      }
    }
  }

  JsonValue parseNumber() {
    size_t start = pos_;
    auto digits = [this]() {
      size_t begin = pos_;
      while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') ++pos_;
      return pos_ - begin;
    };
    if (text_[pos_] == '-') ++pos_;
    if (pos_ < text_.size() && text_[pos_] == '0') {
      ++pos_;
    } else if (digits() == 0) {
      fail("expected digits");
    }
    if (pos_ < text_.size() && text_[pos_] == '.') {
      ++pos_;
      if (digits() == 0) fail("expected fraction digits");
    }
    if (pos_ < text_.size() && (text_[pos_] == 'e' || text_[pos_] == 'E')) {
      ++pos_;
      if (pos_ < text_.size() && (text_[pos_] == '+' || text_[pos_] == '-')) ++pos_;
      if (digits() == 0) fail("expected exponent digits");
    }
    return JsonValue::NumberText(text_.substr(start, pos_ - start));
  }

  const std::string& text_;
  const bool build_;
  size_t pos_ = 0;
};

void Escape(std::string& out, const std::string& text) {
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) {
          char buffer[8];
          snprintf(buffer, sizeof(buffer), "\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
          out += buffer;
        } else {
          out += c;
        }
    }
  }
}

}  // namespace

JsonValue JsonValue::Null() { return JsonValue(); }

JsonValue JsonValue::Object() {
  JsonValue v;
  v.type_ = Type::kObject;
  return v;
}

JsonValue JsonValue::Array() {
  JsonValue v;
  v.type_ = Type::kArray;
  return v;
}

JsonValue JsonValue::String(const std::string& value) {
  JsonValue v;
  v.type_ = Type::kString;
  v.value_ = value;
  return v;
}

JsonValue JsonValue::Boolean(bool value) {
  JsonValue v;
  v.type_ = Type::kBoolean;
  v.value_ = value ? "true" : "false";
  return v;
}

JsonValue JsonValue::Number(int64_t value) {
  JsonValue v;
  v.type_ = Type::kNumber;
  v.value_ = std::to_string(value);
  return v;
}

JsonValue JsonValue::Number(uint64_t value) {
  JsonValue v;
  v.type_ = Type::kNumber;
  v.value_ = std::to_string(value);
  return v;
}

JsonValue JsonValue::NumberText(const std::string& text) {
  JsonValue v;
  v.type_ = Type::kNumber;
  v.value_ = text;
  return v;
}

JsonValue JsonValue::Number(double value) {
  JsonValue v;
  v.type_ = Type::kNumber;
  if (!std::isfinite(value)) {
    // JSON has no text for these; null is what a reader can take.
    v.type_ = Type::kNull;
    return v;
  }
  char buffer[64];
  auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  v.value_.assign(buffer, result.ptr);
  return v;
}

bool JsonValue::Validate(const std::string& text) {
  try {
    Parser(text, false).parseDocument();
    return true;
  } catch (const JsonError&) {
    return false;
  }
}

JsonValue JsonValue::Parse(const std::string& text) { return Parser(text, true).parseDocument(); }

std::string JsonValue::Strip(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (inString) {
      out += c;
      if (c == '\\' && i + 1 < text.size()) {
        out += text[++i];
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r') continue;
    if (c == '"') inString = true;
    out += c;
  }
  return out;
}

JsonValue& JsonValue::add(const std::string& name, JsonValue value) {
  value.name_ = name;
  children_.push_back(std::move(value));
  return children_.back();
}

JsonValue& JsonValue::push(JsonValue value) {
  if (type_ == Type::kArray) value.name_.clear();
  children_.push_back(std::move(value));
  return children_.back();
}

const JsonValue* JsonValue::find(const std::string& name) const {
  for (const JsonValue& child : children_) {
    if (child.name_ == name) return &child;
  }
  return nullptr;
}

std::string JsonValue::text() const {
  switch (type_) {
    case Type::kNull:
      return "null";
    case Type::kString:
    case Type::kNumber:
    case Type::kBoolean:
      return value_;
    default:
      return std::string();
  }
}

int64_t JsonValue::getInt() const { return strtoll(text().c_str(), nullptr, 10); }

double JsonValue::getDouble() const { return strtod(text().c_str(), nullptr); }

bool JsonValue::getBool() const {
  switch (type_) {
    case Type::kBoolean:
      return value_ == "true";
    case Type::kNumber:
      return getDouble() != 0.0;
    case Type::kString:
      return value_ == "true";
    default:
      return false;
  }
}

void JsonValue::write(std::string& out, int level, bool formatted, bool named) const {
  if (formatted && !comment_.empty()) {
    out += "//";
    out += comment_;
    out += '\n';
    out.append(static_cast<size_t>(level), '\t');
  }
  if (named) {
    out += '"';
    Escape(out, name_);
    out += formatted ? "\" : " : "\":";
  }
  switch (type_) {
    case Type::kNull:
      out += "null";
      return;
    case Type::kBoolean:
    case Type::kNumber:
      out += value_;
      return;
    case Type::kString:
      out += '"';
      Escape(out, value_);
      out += '"';
      return;
    case Type::kObject:
    case Type::kArray:
      break;
  }
  bool object = type_ == Type::kObject;
  out += object ? '{' : '[';
  for (size_t i = 0; i < children_.size(); ++i) {
    if (formatted) {
      out += '\n';
      out.append(static_cast<size_t>(level + 1), '\t');
    }
    children_[i].write(out, level + 1, formatted, object);
    if (i + 1 < children_.size()) out += ',';
  }
  if (formatted && !children_.empty()) {
    out += '\n';
    out.append(static_cast<size_t>(level), '\t');
  }
  out += object ? '}' : ']';
}

std::string JsonValue::WriteFormatted(int level) const {
  std::string out;
  write(out, level, true, false);
  return out;
}

std::string JsonValue::WriteCompact() const {
  std::string out;
  write(out, 0, false, false);
  return out;
}

}  // namespace orv
