// The name service of the agent: names bound to registry paths, their
// instances, and the random choice of one instance.
#include "naming/name_container.h"

#include <gtest/gtest.h>

#include <algorithm>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

zelvar::kadri::NameNodeContent Address(const std::string& ip, int port) {
  zelvar::kadri::NameNodeContent content;
  content.set_ip(ip);
  content.set_port(port);
  return content;
}

std::string Show(const zelvar::kadri::NameNodeContent* content) {
  return content == nullptr ? "null" : content->ip() + ":" + std::to_string(content->port());
}

// What GetNameValue must return for the next draws, given the keys of a name
// in instance order and the seed random() starts from.
std::vector<std::string> ExpectedDraws(const NameContainer& names, const std::vector<std::string>& keys,
                                       unsigned seed, int draws) {
  srandom(seed);
  std::vector<std::string> expected;
  for (int i = 0; i < draws; ++i) {
    uint64_t r = static_cast<uint64_t>(random());
    expected.push_back(Show(names.GetNNCWithName(keys[r % keys.size()])));
  }
  return expected;
}

std::vector<std::string> Draws(const NameContainer& names, const std::string& name, unsigned seed, int draws) {
  srandom(seed);
  std::vector<std::string> got;
  for (int i = 0; i < draws; ++i) got.push_back(Show(names.GetNameValue(name)));
  return got;
}

TEST(NameContainer, FirstDefinitionOfANameWinsAndNamesIterateBytewise) {
  NameContainer names;
  EXPECT_TRUE(names.DefineName("TELLAR2_ACCESS", "/zelvar/tellar2_access"));
  EXPECT_TRUE(names.DefineName("MASTER", "/zelvar/master"));
  EXPECT_FALSE(names.DefineName("MASTER", "/elsewhere"));
  EXPECT_TRUE(names.DefineName("aggr", "/zelvar/aggr"));

  std::vector<std::pair<std::string, std::string>> listed(names.Names().begin(), names.Names().end());
  std::vector<std::pair<std::string, std::string>> expected = {
      {"MASTER", "/zelvar/master"}, {"TELLAR2_ACCESS", "/zelvar/tellar2_access"}, {"aggr", "/zelvar/aggr"}};
  EXPECT_EQ(listed, expected);
}

TEST(NameContainer, NameWithoutInstancesGivesNoAddress) {
  NameContainer names;
  names.DefineName("MASTER", "/zelvar/master");
  EXPECT_EQ(names.GetNameValue("MASTER"), nullptr);
  EXPECT_EQ(names.GetNameValue("NEVER_DEFINED"), nullptr);
  EXPECT_TRUE(names.FindNameValues("MASTER").empty());
}

TEST(NameContainer, OneInstanceIsAlwaysTheOneDrawn) {
  NameContainer names;
  names.SetNameValue("MASTER", "node-1", Address("10.0.0.1", 9000));
  for (int i = 0; i < 20; ++i) EXPECT_EQ(Show(names.GetNameValue("MASTER")), "10.0.0.1:9000");
}

TEST(NameContainer, InstanceIsDrawnByRandomModuloTheInstanceCount) {
  NameContainer names;
  // Insertion order, not key order, decides which index a draw lands on.
  names.SetNameValue("MASTER", "node-c", Address("10.0.0.3", 9000));
  names.SetNameValue("MASTER", "node-a", Address("10.0.0.1", 9000));
  names.SetNameValue("MASTER", "node-b", Address("10.0.0.2", 9000));
  names.SetNameValue("OTHER", "node-z", Address("10.9.9.9", 1));

  std::vector<std::string> drawn = Draws(names, "MASTER", 7, 60);
  EXPECT_EQ(drawn, ExpectedDraws(names, {"node-c", "node-a", "node-b"}, 7, 60));
  for (const char* each : {"10.0.0.1:9000", "10.0.0.2:9000", "10.0.0.3:9000"}) {
    EXPECT_NE(std::find(drawn.begin(), drawn.end(), each), drawn.end()) << each << " never drawn";
  }
}

TEST(NameContainer, RepeatedInstanceIsKeptTwiceWithTheLastContent) {
  NameContainer names;
  names.SetNameValue("MASTER", "node-a", Address("10.0.0.1", 9000));
  names.SetNameValue("MASTER", "node-a", Address("10.0.0.1", 9100));
  names.SetNameValue("MASTER", "node-b", Address("10.0.0.2", 9000));

  EXPECT_EQ(Show(names.GetNNCWithName("node-a")), "10.0.0.1:9100");
  EXPECT_EQ(Draws(names, "MASTER", 11, 60), ExpectedDraws(names, {"node-a", "node-a", "node-b"}, 11, 60));

  NameContainer::Contents all = names.FindNameValues("MASTER");
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all["node-a"].port(), 9100);
  EXPECT_EQ(all["node-b"].ip(), "10.0.0.2");
}

TEST(NameContainer, ClearingANameKeepsTheContentsOfItsFormerInstances) {
  NameContainer names;
  names.SetNameValue("MASTER", "node-a", Address("10.0.0.1", 9000));
  names.SetNameValue("TELLAR2_ACCESS", "node-t", Address("10.0.0.7", 7000));
  names.ClearNameValue("MASTER");

  EXPECT_EQ(names.GetNameValue("MASTER"), nullptr);
  EXPECT_EQ(Show(names.GetNNCWithName("node-a")), "10.0.0.1:9000");
  EXPECT_EQ(Show(names.GetNameValue("TELLAR2_ACCESS")), "10.0.0.7:7000");

  // A refresh after the clear brings the name back with its new instances only.
  names.SetNameValue("MASTER", "node-b", Address("10.0.0.2", 9000));
  EXPECT_EQ(Show(names.GetNameValue("MASTER")), "10.0.0.2:9000");
}

TEST(NameContainer, NamesSharingAChildKeyShareItsContentAndTheLaterWriteWins) {
  NameContainer names;
  names.SetNameValue("MASTER", "instance-0", Address("10.0.0.1", 9000));
  const zelvar::kadri::NameNodeContent* held = names.GetNNCWithName("instance-0");
  names.SetNameValue("TELLAR2_ACCESS", "instance-0", Address("10.0.0.7", 7000));

  EXPECT_EQ(Show(names.GetNameValue("MASTER")), "10.0.0.7:7000");
  // The entry was overwritten in place: a pointer taken before still reads it.
  EXPECT_EQ(held, names.GetNNCWithName("instance-0"));
  EXPECT_EQ(Show(held), "10.0.0.7:7000");
}

TEST(NameContainer, ProcessWideContainerIsOneObjectWithoutAnUpdateHook) {
  NameContainer* first = NameContainer::Instance();
  EXPECT_EQ(first, NameContainer::Instance());
  EXPECT_EQ(first->GetUpdateHook(), nullptr);
}

}  // namespace
