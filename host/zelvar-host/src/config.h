// Config: the host's INI configuration file, read once at start-up.
//
// Sections and keys keep their spelling and the order of their first
// appearance. A key given twice in a section, or a value continued on an
// indented line, has its values joined with a newline. Keys may contain '/',
// '.' and '-' (the embedded registry keys its nodes by path).
//
// The object owns every string it hands out: GetString's pointer stays valid
// until the Config is destroyed. Not thread-safe; the host reads it on the
// event-loop thread only.
#ifndef ZELVAR_HOST_CONFIG_H
#define ZELVAR_HOST_CONFIG_H

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace zelvar_host {

class Config {
 public:
  // The longest line the INI reader takes whole; longer lines are refused
  // rather than silently cut.
  static constexpr size_t kMaxLineLength = 199;
  // A configuration is a page or two of settings; anything larger is a wrong
  // path (a device, a log file) and is refused before it fills the memory.
  static constexpr size_t kMaxFileSize = 1024 * 1024;
  // How much of a value an error line repeats.
  static constexpr size_t kMaxQuotedLength = 200;

  // `value` fit for a one-line error: newlines shown as \n, cut to
  // kMaxQuotedLength characters with "..." after a cut.
  static std::string Clip(const std::string& value);

  // Reads `path`, replacing whatever was read before. Only a regular file of
  // at most kMaxFileSize bytes without NUL bytes is read. On failure returns
  // false with one line saying what is wrong and where (file and line) in
  // `error`, and holds nothing: half a file is never used.
  bool Load(const std::string& path, std::string* error);
  // Same as Load, from text; `name` stands for the file in error messages.
  bool LoadString(const std::string& text, const std::string& name, std::string* error);

  // The value of section/key; `dflt` when absent, and "" when `dflt` is null.
  const char* GetString(const char* section, const char* key, const char* dflt) const;
  // The value as a base-10 integer; `dflt` when absent or not a whole number.
  int GetInt(const char* section, const char* key, int dflt) const;
  bool Has(const std::string& section, const std::string& key) const;
  // Appends the keys of `section` that the POSIX extended regular expression
  // `pattern` matches (anywhere in the key), in file order. False when the
  // pattern does not compile.
  bool ListKeys(const std::string& section, const std::string& pattern,
                std::vector<std::string>* out) const;
  // The names of the sections the file has.
  std::vector<std::string> SectionNames() const;
  // Every key and value of a section, in file order.
  std::vector<std::pair<std::string, std::string>> Section(const std::string& section) const;

  // The path the configuration was read from, and its directory ("." when the
  // path has none), against which relative paths in the file are resolved.
  const std::string& Path() const { return m_strPath; }
  std::string Directory() const;

 private:
  struct Entries {
    std::vector<std::string> order;
    std::map<std::string, std::string> values;
  };
  static int OnEntry(void* user, const char* section, const char* key, const char* value);
  bool CheckLines(const std::string& text, const std::string& name, std::string* error);
  const std::string* Find(const char* section, const char* key) const;

  std::string m_strPath;
  std::map<std::string, Entries> m_mapSections;
};

}  // namespace zelvar_host

#endif  // ZELVAR_HOST_CONFIG_H
