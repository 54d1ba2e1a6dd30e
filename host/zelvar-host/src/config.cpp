#include "config.h"

#include <ini.h>
#include <regex.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace zelvar_host {

bool Config::Load(const std::string& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read configuration file " + path + ": " + std::strerror(errno);
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) {
    *error = "cannot read configuration file " + path + ": " + std::strerror(errno);
    return false;
  }
  m_strPath = path;
  return LoadString(text.str(), path, error);
}

bool Config::LoadString(const std::string& text, const std::string& name, std::string* error) {
  m_mapSections.clear();
  if (!CheckLineLengths(text, name, error)) return false;
  int rc = ini_parse_string(text.c_str(), &Config::OnEntry, this);
  if (rc == 0) return true;
  if (rc > 0) {
    *error = name + ":" + std::to_string(rc) +
             ": syntax error (expected [section], key = value, or a comment)";
  } else {
    *error = "cannot parse configuration file " + name;
  }
  m_mapSections.clear();
  return false;
}

// The INI reader stops a line at a fixed length and throws the rest away, which
// would turn a long command into a shorter one without a word.
bool Config::CheckLineLengths(const std::string& text, const std::string& name, std::string* error) {
  size_t lineNo = 1;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    size_t length = end - start;
    if (length > 0 && text[end - 1] == '\r') --length;
    if (length > kMaxLineLength) {
      *error = name + ":" + std::to_string(lineNo) + ": line is longer than " +
               std::to_string(kMaxLineLength) + " characters";
      return false;
    }
    start = end + 1;
    ++lineNo;
  }
  return true;
}

int Config::OnEntry(void* user, const char* section, const char* key, const char* value) {
  Config* self = static_cast<Config*>(user);
  Entries& entries = self->m_mapSections[section];
  auto it = entries.values.find(key);
  if (it == entries.values.end()) {
    entries.order.emplace_back(key);
    entries.values.emplace(key, value);
  } else {
    it->second.append("\n").append(value);
  }
  return 1;
}

const std::string* Config::Find(const char* section, const char* key) const {
  if (section == nullptr || key == nullptr) return nullptr;
  auto sectionIt = m_mapSections.find(section);
  if (sectionIt == m_mapSections.end()) return nullptr;
  auto it = sectionIt->second.values.find(key);
  return it == sectionIt->second.values.end() ? nullptr : &it->second;
}

const char* Config::GetString(const char* section, const char* key, const char* dflt) const {
  const std::string* value = Find(section, key);
  if (value != nullptr) return value->c_str();
  return dflt != nullptr ? dflt : "";
}

int Config::GetInt(const char* section, const char* key, int dflt) const {
  const std::string* value = Find(section, key);
  if (value == nullptr || value->empty()) return dflt;
  errno = 0;
  char* end = nullptr;
  long parsed = std::strtol(value->c_str(), &end, 10);
  while (end != nullptr && (*end == ' ' || *end == '\t')) ++end;
  if (errno != 0 || end == value->c_str() || *end != '\0' || parsed < INT_MIN || parsed > INT_MAX) {
    return dflt;
  }
  return static_cast<int>(parsed);
}

bool Config::Has(const std::string& section, const std::string& key) const {
  return Find(section.c_str(), key.c_str()) != nullptr;
}

bool Config::ListKeys(const std::string& section, const std::string& pattern,
                      std::vector<std::string>* out) const {
  regex_t compiled;
  if (regcomp(&compiled, pattern.c_str(), REG_EXTENDED | REG_NOSUB) != 0) return false;
  auto sectionIt = m_mapSections.find(section);
  if (sectionIt != m_mapSections.end()) {
    for (const std::string& key : sectionIt->second.order) {
      if (regexec(&compiled, key.c_str(), 0, nullptr, 0) == 0) out->push_back(key);
    }
  }
  regfree(&compiled);
  return true;
}

std::vector<std::pair<std::string, std::string>> Config::Section(const std::string& section) const {
  std::vector<std::pair<std::string, std::string>> result;
  auto sectionIt = m_mapSections.find(section);
  if (sectionIt == m_mapSections.end()) return result;
  for (const std::string& key : sectionIt->second.order) {
    result.emplace_back(key, sectionIt->second.values.at(key));
  }
  return result;
}

std::string Config::Directory() const {
  size_t slash = m_strPath.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return m_strPath.substr(0, slash);
}

}  // namespace zelvar_host
