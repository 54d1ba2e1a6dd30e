// The strict reading of one YAML map's fields that the jobs file is built
// from: known keys only, each once, values of the expected kind and range.
// A mistake is thrown as a CatalogueError carrying the place to point at, so
// that each reading step stays a plain function and the caller turns it into
// one "FILE:LINE:COLUMN: what is wrong" message.
#ifndef OVITA2_CONTROLPLANE_STRICT_FIELDS_H
#define OVITA2_CONTROLPLANE_STRICT_FIELDS_H

#include <yaml-cpp/yaml.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace controlplane {
namespace catalogue {

struct CatalogueError {
  YAML::Mark m_mark;
  std::string m_strMessage;
};

[[noreturn]] void Fail(const YAML::Mark& mark, std::string message);

std::string Quoted(const std::string& text);
// "SOURCE:LINE:COLUMN: message", or "SOURCE: message" without a place.
std::string Located(const std::string& sourceName, const YAML::Mark& mark, const std::string& message);
std::string LineOf(const YAML::Mark& mark);
// How a node reads to the user, to finish "must be X, not ...".
std::string Describe(const YAML::Node& node);

// One key of a map with its value.
struct Field {
  std::string m_strName;
  YAML::Node m_key;
  YAML::Node m_value;
};
using FieldMap = std::map<std::string, Field>;

// Where to point for a field's value.
YAML::Mark PlaceOf(const Field& field);

// The keys of a fixed-shape map; `what` names the map in messages ("job").
FieldMap ReadFields(const YAML::Node& map, const std::vector<std::string>& known, const std::string& what);
const Field* FindField(const FieldMap& fields, const std::string& name);
const Field& RequireField(const FieldMap& fields, const std::string& name, const YAML::Node& owner,
                          const std::string& ownerLabel);

// Values; `owner` names the map the field belongs to.
uint32_t Uint32Of(const YAML::Node& node, const YAML::Mark& place, const std::string& what);
uint32_t Uint32Of(const Field& field, const std::string& owner);
uint32_t PositiveUint32Of(const Field& field, const std::string& owner);
std::string TextOf(const Field& field, const std::string& owner);
std::string NonEmptyTextOf(const Field& field, const std::string& owner);
// An unsigned 64-bit number, as text in its plain decimal form.
std::string ParameterOf(const Field& field);

// A list that may be left empty.
void RequireListOrNothing(const Field& field, const std::string& what);
void RequireMap(const YAML::Node& node, const std::string& what);

// Ids already read in one scope (jobs of an object, objects or collector
// types of an agent), with where each was first given.
using SeenIds = std::map<uint32_t, YAML::Mark>;
// Fails when `id` was seen already in this scope.
void RejectRepeat(SeenIds* seen, uint32_t id, const YAML::Mark& place, const std::string& label);

}  // namespace catalogue
}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_STRICT_FIELDS_H
