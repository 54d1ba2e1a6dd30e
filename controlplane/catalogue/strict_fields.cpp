#include "catalogue/strict_fields.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace controlplane {
namespace catalogue {
namespace {

std::string Join(const std::vector<std::string>& names) {
  std::string joined;
  for (const std::string& name : names) joined += (joined.empty() ? "" : ", ") + name;
  return joined;
}

// Digits only: YAML would also read "+5", "0x1F" or "1e3" as numbers, but in
// a job id or an interval such spellings are far likelier slips than intents.
bool ParseDecimal(const std::string& text, uint64_t max, uint64_t* value) {
  if (text.empty()) return false;
  uint64_t parsed = 0;
  for (char digit : text) {
    if (digit < '0' || digit > '9') return false;
    const uint64_t next = static_cast<uint64_t>(digit - '0');
    if (parsed > (max - next) / 10) return false;
    parsed = parsed * 10 + next;
  }
  *value = parsed;
  return true;
}

}  // namespace

[[noreturn]] void Fail(const YAML::Mark& mark, std::string message) { throw CatalogueError{mark, std::move(message)}; }

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

std::string Located(const std::string& sourceName, const YAML::Mark& mark, const std::string& message) {
  if (mark.is_null()) return sourceName + ": " + message;
  return sourceName + ":" + std::to_string(mark.line + 1) + ":" + std::to_string(mark.column + 1) + ": " + message;
}

std::string LineOf(const YAML::Mark& mark) { return std::to_string(mark.line + 1); }

std::string Describe(const YAML::Node& node) {
  switch (node.Type()) {
    case YAML::NodeType::Scalar:
      return Quoted(node.Scalar());
    case YAML::NodeType::Sequence:
      return "a list";
    case YAML::NodeType::Map:
      return "a map";
    default:
      return "empty";
  }
}

// yaml-cpp places an empty value at the token after it, often on the next
// line, so the key is the better place then.
YAML::Mark PlaceOf(const Field& field) { return field.m_value.IsNull() ? field.m_key.Mark() : field.m_value.Mark(); }

// The keys of a fixed-shape map. yaml-cpp keeps a repeated key as a second
// entry rather than rejecting it, so repeats are caught here. (Map entries
// are walked by value throughout: yaml-cpp's iterator hands out temporaries.)
FieldMap ReadFields(const YAML::Node& map, const std::vector<std::string>& known, const std::string& what) {
  FieldMap fields;
  for (const auto& entry : map) {
    const YAML::Node key = entry.first;
    if (!key.IsScalar()) Fail(key.Mark(), what + " field names must be text, not " + Describe(key));
    const std::string& name = key.Scalar();
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      Fail(key.Mark(), "unknown " + what + " field " + Quoted(name) + " (known: " + Join(known) + ")");
    }
    auto inserted = fields.emplace(name, Field{name, key, entry.second});
    if (!inserted.second) {
      Fail(key.Mark(), what + " field " + Quoted(name) + " is given twice (first at line " +
                           LineOf(inserted.first->second.m_key.Mark()) + ")");
    }
  }
  return fields;
}

const Field* FindField(const FieldMap& fields, const std::string& name) {
  auto found = fields.find(name);
  return found != fields.end() ? &found->second : nullptr;
}

const Field& RequireField(const FieldMap& fields, const std::string& name, const YAML::Node& owner,
                          const std::string& ownerLabel) {
  const Field* field = FindField(fields, name);
  if (field == nullptr) Fail(owner.Mark(), ownerLabel + " has no " + Quoted(name));
  return *field;
}

// An unsigned 32-bit YAML integer. A quoted "10" is text in YAML, and
// accepting it would blur the line the file draws between numbers and text.
uint32_t Uint32Of(const YAML::Node& node, const YAML::Mark& place, const std::string& what) {
  const std::string expected = what + " must be an unsigned 32-bit integer";
  if (!node.IsScalar()) Fail(place, expected + ", not " + Describe(node));
  if (node.Tag() == "!") Fail(place, expected + ", not the quoted text " + Describe(node) + " (drop the quotes)");
  uint64_t value = 0;
  if (!ParseDecimal(node.Scalar(), std::numeric_limits<uint32_t>::max(), &value)) {
    Fail(place, expected + ", not " + Describe(node));
  }
  return static_cast<uint32_t>(value);
}

uint32_t Uint32Of(const Field& field, const std::string& owner) {
  return Uint32Of(field.m_value, PlaceOf(field), owner + " field " + Quoted(field.m_strName));
}

uint32_t PositiveUint32Of(const Field& field, const std::string& owner) {
  const uint32_t value = Uint32Of(field, owner);
  if (value == 0) Fail(PlaceOf(field), owner + " field " + Quoted(field.m_strName) + " must be at least 1, not 0");
  return value;
}

// A text field as written. An empty value is refused rather than read as ""
// because it is as likely a value forgotten as one meant to be empty.
std::string TextOf(const Field& field, const std::string& owner) {
  const std::string what = owner + " field " + Quoted(field.m_strName);
  if (field.m_value.IsNull()) Fail(PlaceOf(field), what + " has no value (write \"\" for an empty text)");
  if (!field.m_value.IsScalar()) Fail(PlaceOf(field), what + " must be text, not " + Describe(field.m_value));
  return field.m_value.Scalar();
}

std::string NonEmptyTextOf(const Field& field, const std::string& owner) {
  const std::string what = owner + " field " + Quoted(field.m_strName);
  if (field.m_value.IsNull() || (field.m_value.IsScalar() && field.m_value.Scalar().empty())) {
    Fail(PlaceOf(field), what + " must not be empty");
  }
  return TextOf(field, owner);
}

// A collector parameter is an unsigned 64-bit number that the proto carries
// as text; either YAML spelling is accepted, and it is stored in its plain
// decimal form so that "007" and 7 reach the agent alike.
std::string ParameterOf(const Field& field) {
  const std::string what = "collector configuration field " + Quoted(field.m_strName);
  uint64_t value = 0;
  if (!field.m_value.IsScalar() ||
      !ParseDecimal(field.m_value.Scalar(), std::numeric_limits<uint64_t>::max(), &value)) {
    Fail(PlaceOf(field), what + " must be an unsigned 64-bit decimal number, not " + Describe(field.m_value));
  }
  return std::to_string(value);
}

// A list that may be left empty. A key whose items were all commented out is
// read as "none" rather than as a mistake.
void RequireListOrNothing(const Field& field, const std::string& what) {
  if (!field.m_value.IsNull() && !field.m_value.IsSequence()) {
    Fail(PlaceOf(field), what + " must be a list, not " + Describe(field.m_value));
  }
}

void RequireMap(const YAML::Node& node, const std::string& what) {
  if (!node.IsMap()) Fail(node.Mark(), what + " must be a map, not " + Describe(node));
}

void RejectRepeat(SeenIds* seen, uint32_t id, const YAML::Mark& place, const std::string& label) {
  auto inserted = seen->emplace(id, place);
  if (!inserted.second) {
    Fail(place, label + " is defined twice (first at line " + LineOf(inserted.first->second) + ")");
  }
}

}  // namespace catalogue
}  // namespace controlplane
