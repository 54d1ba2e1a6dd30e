// JobCatalogue: reads the jobs file strictly, so that a typo or a misplaced
// value stops the load with its position instead of handing agents a job that
// silently lacks a field.
#include "catalogue/job_catalogue.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <sstream>
#include <utility>

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/parser.h>

#include "catalogue/strict_fields.h"

namespace controlplane {

namespace {

using namespace catalogue;
using zelvar::ovita2::ConfObject;
using zelvar::ovita2::JobDescription;
using zelvar::ovita2::ObjectJob;

using AgentMap = std::map<std::string, AgentCatalogue>;

const std::vector<std::string>& JobFieldNames() {
  static const std::vector<std::string> names = {"job_id",
                                                 "stat_item",
                                                 "interval",
                                                 "command",
                                                 "command_args",
                                                 "second_phase",
                                                 "second_phase_command",
                                                 "second_phase_delay",
                                                 "stat_key",
                                                 "string_value",
                                                 "description"};
  return names;
}

// Only the fields written in the file are set, so an agent can tell a field
// left out from one written as 0.
void SetOptionalJobFields(const FieldMap& fields, JobDescription* job) {
  const std::string owner = "job";
  if (const Field* field = FindField(fields, "stat_item")) job->set_stat_item(Uint32Of(*field, owner));
  if (const Field* field = FindField(fields, "command_args")) job->set_command_args(TextOf(*field, owner));
  if (const Field* field = FindField(fields, "second_phase")) job->set_second_phase(Uint32Of(*field, owner));
  if (const Field* field = FindField(fields, "second_phase_command")) {
    job->set_second_phase_command(TextOf(*field, owner));
  }
  if (const Field* field = FindField(fields, "second_phase_delay")) {
    job->set_second_phase_delay(Uint32Of(*field, owner));
  }
  if (const Field* field = FindField(fields, "string_value")) job->set_string_value(Uint32Of(*field, owner));
  if (const Field* field = FindField(fields, "description")) job->set_description(TextOf(*field, owner));
}

JobDescription ReadJob(const YAML::Node& node, const std::string& objectLabel, SeenIds* seenJobs) {
  RequireMap(node, "a job of " + objectLabel);
  const FieldMap fields = ReadFields(node, JobFieldNames(), "job");
  const Field& idField = RequireField(fields, "job_id", node, "job of " + objectLabel);
  const uint32_t jobId = Uint32Of(idField, "job");
  const std::string jobLabel = "job " + std::to_string(jobId) + " of " + objectLabel;
  RejectRepeat(seenJobs, jobId, PlaceOf(idField), jobLabel);

  JobDescription job;
  job.set_job_id(jobId);
  job.set_interval(PositiveUint32Of(RequireField(fields, "interval", node, jobLabel), "job"));
  job.set_command(NonEmptyTextOf(RequireField(fields, "command", node, jobLabel), "job"));
  job.set_stat_key(NonEmptyTextOf(RequireField(fields, "stat_key", node, jobLabel), "job"));
  SetOptionalJobFields(fields, &job);
  return job;
}

void ReadObject(const YAML::Node& node, const std::string& agentLabel, SeenIds* seenObjects,
                std::vector<ObjectJob>* objectJobs) {
  RequireMap(node, "an object of " + agentLabel);
  const FieldMap fields = ReadFields(node, {"object_id", "jobs"}, "object");
  const Field& idField = RequireField(fields, "object_id", node, "object of " + agentLabel);
  const uint32_t objectId = Uint32Of(idField, "object");
  const std::string objectLabel = "object " + std::to_string(objectId) + " of " + agentLabel;
  RejectRepeat(seenObjects, objectId, PlaceOf(idField), objectLabel);

  const Field* jobsField = FindField(fields, "jobs");
  if (jobsField == nullptr) return;
  RequireListOrNothing(*jobsField, Quoted("jobs") + " of " + objectLabel);
  SeenIds seenJobs;
  for (const YAML::Node& jobNode : jobsField->m_value) {
    ObjectJob& objectJob = objectJobs->emplace_back();
    objectJob.set_object_id(objectId);
    *objectJob.mutable_job() = ReadJob(jobNode, objectLabel, &seenJobs);
  }
}

ConfObject ReadConf(const YAML::Node& node, const std::string& typeLabel, std::map<std::string, YAML::Mark>* seen) {
  RequireMap(node, "a configuration of " + typeLabel);
  const FieldMap fields = ReadFields(node, {"target", "parameter"}, "collector configuration");
  const Field& targetField = RequireField(fields, "target", node, "configuration of " + typeLabel);
  ConfObject conf;
  conf.set_target(NonEmptyTextOf(targetField, "collector configuration"));
  auto inserted = seen->emplace(conf.target(), PlaceOf(targetField));
  if (!inserted.second) {
    Fail(PlaceOf(targetField), "target " + Quoted(conf.target()) + " of " + typeLabel +
                                   " is given twice (first at line " + LineOf(inserted.first->second) + ")");
  }
  const Field* parameterField = FindField(fields, "parameter");
  conf.set_parameter(parameterField != nullptr ? ParameterOf(*parameterField) : "0");
  return conf;
}

void ReadConfs(const Field& confsField, const std::string& agentLabel,
               std::map<uint32_t, std::vector<ConfObject>>* confs) {
  const YAML::Node& node = confsField.m_value;
  if (node.IsNull()) return;
  if (!node.IsMap()) {
    Fail(PlaceOf(confsField),
         Quoted("confs") + " of " + agentLabel + " must be a map from collector type to a list, not " + Describe(node));
  }
  SeenIds seenTypes;
  for (const auto& entry : node) {
    const YAML::Node key = entry.first;
    const uint32_t type = Uint32Of(key, key.Mark(), "a collector type of " + agentLabel);
    if (type == 0) Fail(key.Mark(), "a collector type of " + agentLabel + " must be at least 1, not 0");
    const std::string typeLabel = "collector type " + std::to_string(type) + " of " + agentLabel;
    const Field typeField{std::to_string(type), key, entry.second};
    RejectRepeat(&seenTypes, type, key.Mark(), typeLabel);
    RequireListOrNothing(typeField, typeLabel);
    std::vector<ConfObject>& ofType = (*confs)[type];
    std::map<std::string, YAML::Mark> seenTargets;
    for (const YAML::Node& confNode : typeField.m_value) ofType.push_back(ReadConf(confNode, typeLabel, &seenTargets));
  }
}

// An empty entry ("web-01:") is an agent that is given nothing.
AgentCatalogue ReadAgent(const Field& agentField) {
  const std::string agentLabel = "agent " + Quoted(agentField.m_strName);
  AgentCatalogue agent;
  const YAML::Node& node = agentField.m_value;
  if (node.IsNull()) return agent;
  if (!node.IsMap()) {
    Fail(PlaceOf(agentField), agentLabel + " must be a map (of \"objects\" and \"confs\"), not " + Describe(node));
  }
  const FieldMap fields = ReadFields(node, {"objects", "confs"}, "agent");
  if (const Field* objectsField = FindField(fields, "objects")) {
    RequireListOrNothing(*objectsField, Quoted("objects") + " of " + agentLabel);
    SeenIds seenObjects;
    for (const YAML::Node& objectNode : objectsField->m_value) {
      ReadObject(objectNode, agentLabel, &seenObjects, &agent.object_jobs);
    }
  }
  if (const Field* confsField = FindField(fields, "confs")) ReadConfs(*confsField, agentLabel, &agent.confs);
  return agent;
}

AgentMap ReadAgents(const Field& agentsField) {
  const YAML::Node& node = agentsField.m_value;
  // A bare "agents:" is the same slip as an empty file; a catalogue meant to
  // give nobody anything says so with "{}".
  if (node.IsNull()) Fail(agentsField.m_key.Mark(), "\"agents\" is empty (write \"agents: {}\" for no agents)");
  if (!node.IsMap()) Fail(PlaceOf(agentsField), "\"agents\" must be a map from agent name, not " + Describe(node));
  AgentMap agents;
  std::map<std::string, YAML::Mark> seenNames;
  for (const auto& entry : node) {
    const YAML::Node key = entry.first;
    if (!key.IsScalar() || key.Scalar().empty()) {
      Fail(key.Mark(), "an agent name must be non-empty text, not " + Describe(key));
    }
    const Field agentField{key.Scalar(), key, entry.second};
    auto inserted = seenNames.emplace(agentField.m_strName, key.Mark());
    if (!inserted.second) {
      Fail(key.Mark(), "agent " + Quoted(agentField.m_strName) + " is defined twice (first at line " +
                           LineOf(inserted.first->second) + ")");
    }
    agents.emplace(agentField.m_strName, ReadAgent(agentField));
  }
  return agents;
}

AgentMap ReadDocument(const YAML::Node& root) {
  RequireMap(root, "the file");
  const FieldMap fields = ReadFields(root, {"agents"}, "top-level");
  const Field* agentsField = FindField(fields, "agents");
  if (agentsField == nullptr) Fail(root.Mark(), "no \"agents\" map");
  return ReadAgents(*agentsField);
}

bool ReadWholeFile(const std::string& path, std::string* text, std::string* error) {
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    *error = path + ": cannot read: " + std::strerror(errno);
    return false;
  }
  char buffer[8192];
  size_t got = 0;
  while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) text->append(buffer, got);
  // A directory opens fine on Linux and only fails on the first read.
  const int readError = std::ferror(file) ? errno : 0;
  std::fclose(file);
  if (readError != 0) {
    *error = path + ": cannot read: " + std::strerror(readError);
    return false;
  }
  return true;
}

// Where the first node of a document starts; an empty document has none.
class FirstNodeMark : public YAML::EventHandler {
 public:
  std::optional<YAML::Mark> mark;

  void OnDocumentStart(const YAML::Mark&) override {}
  void OnDocumentEnd() override {}
  void OnNull(const YAML::Mark&, YAML::anchor_t) override {}
  void OnAlias(const YAML::Mark& at, YAML::anchor_t) override { Note(at); }
  void OnScalar(const YAML::Mark& at, const std::string&, YAML::anchor_t, const std::string&) override { Note(at); }
  void OnSequenceStart(const YAML::Mark& at, const std::string&, YAML::anchor_t, YAML::EmitterStyle::value) override {
    Note(at);
  }
  void OnSequenceEnd() override {}
  void OnMapStart(const YAML::Mark& at, const std::string&, YAML::anchor_t, YAML::EmitterStyle::value) override {
    Note(at);
  }
  void OnMapEnd() override {}

 private:
  void Note(const YAML::Mark& at) {
    if (!mark) mark = at;
  }
};

// Where a second, non-empty document starts, if the text has one. The parser
// is asked for two documents and no more: yaml-cpp's LoadAll asks until it is
// told there are none, and on some malformed texts it is never told.
std::optional<YAML::Mark> SecondDocument(const std::string& text) {
  std::istringstream input(text);
  YAML::Parser parser(input);
  FirstNodeMark first, second;
  if (!parser.HandleNextDocument(first) || !parser.HandleNextDocument(second)) return std::nullopt;
  return second.mark;
}

}  // namespace

std::optional<uint32_t> AgentCatalogue::ObjectOfJob(uint32_t jobId, const std::string& statKey) const {
  std::optional<uint32_t> holder;
  for (const ObjectJob& objectJob : object_jobs) {
    if (objectJob.job().job_id() != jobId || objectJob.job().stat_key() != statKey) continue;
    // Job ids are unique within an object, so a second hit is a second object.
    if (holder) return std::nullopt;
    holder = objectJob.object_id();
  }
  return holder;
}

bool JobCatalogue::Parse(const std::string& text, const std::string& sourceName, JobCatalogue* out,
                         std::string* error) {
  AgentMap agents;
  try {
    const YAML::Node document = YAML::Load(text);
    if (document.IsNull()) {
      *error = sourceName + ": no \"agents\" map";
      return false;
    }
    // A second document would otherwise be ignored without a word.
    if (std::optional<YAML::Mark> second = SecondDocument(text)) {
      Fail(*second, "a jobs file holds one YAML document, not more");
    }
    agents = ReadDocument(document);
  } catch (const CatalogueError& mistake) {
    *error = Located(sourceName, mistake.m_mark, mistake.m_strMessage);
    return false;
  } catch (const YAML::Exception& invalid) {
    *error = Located(sourceName, invalid.mark, "invalid YAML: " + invalid.msg);
    return false;
  }
  out->m_mapAgents.swap(agents);
  return true;
}

bool JobCatalogue::Load(const std::string& path, JobCatalogue* out, std::string* error) {
  std::string text;
  if (!ReadWholeFile(path, &text, error)) return false;
  return Parse(text, path, out, error);
}

const AgentCatalogue* JobCatalogue::Find(const std::string& agentName) const {
  auto found = m_mapAgents.find(agentName);
  if (found == m_mapAgents.end()) found = m_mapAgents.find(kAnyAgent);
  return found != m_mapAgents.end() ? &found->second : nullptr;
}

size_t JobCatalogue::JobCount() const {
  size_t count = 0;
  for (const auto& agent : m_mapAgents) count += agent.second.object_jobs.size();
  return count;
}

}  // namespace controlplane
