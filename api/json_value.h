#ifndef ORV_API_JSON_VALUE_H_
#define ORV_API_JSON_VALUE_H_

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

namespace orv {

// Raised by JsonValue::Parse and by typed access that cannot be satisfied.
class JsonError : public std::runtime_error {
 public:
  explicit JsonError(const std::string& what) : std::runtime_error(what) {}
};

// The document model of every request and response body and of the driver's status
// document. Children keep the order in which they were added, and are written in that
// order. Numbers keep their text, so that a number and a numeric string read the same
// through text() and the strtol-based getters.
class JsonValue {
 public:
  enum class Type { kNull, kString, kNumber, kBoolean, kArray, kObject };

  JsonValue() = default;
  virtual ~JsonValue() = default;
  JsonValue(const JsonValue&) = default;
  JsonValue& operator=(const JsonValue&) = default;
  JsonValue(JsonValue&&) = default;
  JsonValue& operator=(JsonValue&&) = default;

  static JsonValue Null();
  static JsonValue Object();
  static JsonValue Array();
  static JsonValue String(const std::string& value);
  static JsonValue Boolean(bool value);
  static JsonValue Number(int64_t value);
  static JsonValue Number(uint64_t value);
  static JsonValue Number(int value) { return Number(static_cast<int64_t>(value)); }
  static JsonValue Number(double value);
  // A number that keeps exactly this text (valid JSON number text, as parsed).
  static JsonValue NumberText(const std::string& text);

  // True when the text is one complete JSON document: an object or an array, nested at
  // most 512 levels. Builds no nodes, so it is cheap on large bodies.
  static bool Validate(const std::string& text);
  // Parses one complete document (object or array); throws JsonError with a position
  // on failure.
  static JsonValue Parse(const std::string& text);
  // The text without white space outside strings.
  static std::string Strip(const std::string& text);

  Type type() const { return type_; }
  bool isNull() const { return type_ == Type::kNull; }
  bool isObject() const { return type_ == Type::kObject; }
  bool isArray() const { return type_ == Type::kArray; }
  bool isString() const { return type_ == Type::kString; }
  bool isNumber() const { return type_ == Type::kNumber; }
  bool isBoolean() const { return type_ == Type::kBoolean; }

  // The key under which the value sits in its parent object (empty elsewhere).
  const std::string& name() const { return name_; }
  void setName(const std::string& name) { name_ = name; }
  // The optional comment; written by WriteFormatted when set. The agent never sets one.
  const std::string& comment() const { return comment_; }
  void setComment(const std::string& comment) { comment_ = comment; }

  // Children of an object or array.
  const std::vector<JsonValue>& children() const { return children_; }
  size_t size() const { return children_.size(); }
  // Adds a named member to an object; returns the stored child.
  JsonValue& add(const std::string& name, JsonValue value);
  // Appends an element to an array (or an unnamed child to an object); returns it.
  JsonValue& push(JsonValue value);
  // The first member of that name, or null.
  const JsonValue* find(const std::string& name) const;

  // Text form of a scalar: a string's value, a number's text, "true"/"false", "null";
  // empty for arrays and objects.
  std::string text() const;
  std::string getString() const { return text(); }
  // Base-10 strtol/strtoll of text(): unparsable text gives 0.
  int64_t getInt() const;
  double getDouble() const;
  // A boolean's value; a number is true when not zero; a string when it reads "true".
  bool getBool() const;

  // The agent's response form: tabs per level, "name" : value, one member per line.
  std::string WriteFormatted(int level = 0) const;
  // The compact form: no white space, "name":value.
  std::string WriteCompact() const;

 private:
  void write(std::string& out, int level, bool formatted, bool named) const;

  Type type_ = Type::kNull;
  std::string name_;
  std::string value_;  // string value, number text or "true"/"false"
  std::string comment_;
  std::vector<JsonValue> children_;
};

}  // namespace orv

#endif  // ORV_API_JSON_VALUE_H_
