#include "config.h"

#include <fcntl.h>
#include <ini.h>
#include <regex.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "zelvar/string_util.h"

namespace zelvar_host {

namespace {

// The file's text, when it is a regular file of at most `limit` bytes.
bool ReadBounded(const std::string& path, size_t limit, std::string* text, std::string* error) {
  // Non-blocking, so that a FIFO given by mistake is refused rather than waited on.
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  struct stat status;
  bool ok = fd >= 0 && fstat(fd, &status) == 0;
  if (ok && !S_ISREG(status.st_mode)) {
    *error = "configuration file " + path + " is not a regular file";
  } else if (ok) {
    text->resize(limit + 1);  // one byte more tells a file that is too large, even a growing one
    size_t got = 0;
    ssize_t n = 1;
    while (got < text->size() && (n = read(fd, &(*text)[got], text->size() - got)) != 0) {
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) break;
      got += static_cast<size_t>(n);
    }
    text->resize(got);
    if (n < 0) ok = false;
    if (got > limit) *error = "configuration file " + path + " is larger than " + std::to_string(limit) + " bytes";
  }
  if (!ok) *error = "cannot read configuration file " + path + ": " + std::strerror(errno);
  if (fd >= 0) close(fd);
  return error->empty();
}

}  // namespace

std::string Config::Clip(const std::string& value) {
  std::string clipped;
  for (char c : value.substr(0, kMaxQuotedLength)) clipped += c == '\n' ? std::string("\\n") : std::string(1, c);
  return value.size() > kMaxQuotedLength ? clipped + "..." : clipped;
}

bool Config::Load(const std::string& path, std::string* error) {
  std::string text;
  error->clear();
  m_mapSections.clear();
  if (!ReadBounded(path, kMaxFileSize, &text, error)) return false;
  m_strPath = path;
  return LoadString(text, path, error);
}

bool Config::LoadString(const std::string& text, const std::string& name, std::string* error) {
  m_mapSections.clear();
  if (!CheckLines(text, name, error)) return false;
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
// would turn a long command into a shorter one without a word; it also stops
// the whole text at a NUL byte, which would leave a file of NUL bytes (or a
// binary) as an empty configuration.
bool Config::CheckLines(const std::string& text, const std::string& name, std::string* error) {
  size_t nul = text.find('\0');
  if (nul != std::string::npos) {
    *error = name + ":" + std::to_string(1 + std::count(text.begin(), text.begin() + nul, '\n')) +
             ": NUL byte (not a text file)";
    return false;
  }
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
  int parsed = 0;
  return zelvar::ParseInteger(*value, &parsed) == zelvar::IntegerParse::kOk ? parsed : dflt;
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

std::vector<std::string> Config::SectionNames() const {
  std::vector<std::string> names;
  for (const auto& section : m_mapSections) names.push_back(section.first);
  return names;
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
