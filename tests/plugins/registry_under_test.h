// RegistryUnderTest: what the shared registry conformance suite needs to know
// about one registry plug-in: where its library is, how its nodes are seeded
// before it loads, and how it is configured.
//
// The suite owns one per test. Test thread only.
#ifndef OVITA2_TESTS_PLUGINS_REGISTRY_UNDER_TEST_H
#define OVITA2_TESTS_PLUGINS_REGISTRY_UNDER_TEST_H

#include <memory>
#include <ostream>
#include <string>

#include "test_host.h"

namespace zelvar::registry::testing {

class RegistryUnderTest {
 public:
  virtual ~RegistryUnderTest() = default;

  // Makes the backing store available (a server is started when there is
  // one). False, with the reason, when it cannot be.
  virtual bool Prepare(std::string* error) = 0;
  // A persistent node holding `address` ("ip:port") as a NameNodeContent,
  // parents made as needed. Called before the plug-in loads.
  virtual bool Seed(const std::string& path, const std::string& address) = 0;
  // Makes the parents of `path` exist, so that a "create" of `path` works.
  virtual bool EnsureParents(const std::string& path) = 0;
  // Writes the plug-in's configuration into the host.
  virtual void Configure(TestHost& host) = 0;
  virtual std::string PluginPath() const = 0;
};

struct RegistryKind {
  const char* name;
  std::unique_ptr<RegistryUnderTest> (*make)();
};

// How GoogleTest shows the parameter in test listings.
inline void PrintTo(const RegistryKind& kind, std::ostream* out) { *out << kind.name; }

}  // namespace zelvar::registry::testing

#endif  // OVITA2_TESTS_PLUGINS_REGISTRY_UNDER_TEST_H
