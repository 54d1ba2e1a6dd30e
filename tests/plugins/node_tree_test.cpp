// The embedded registry's node bookkeeping.
#include "embedded/node_tree.h"

#include <gtest/gtest.h>

namespace zelvar::registry {
namespace {

constexpr int64_t kSession = 0x0e00000000000123LL;

TEST(NodeTree, CreatingANodeMakesItsParentsAndCountsItInThem) {
  NodeTree tree(kSession);
  std::string created;
  ASSERT_EQ(tree.Create("/a/b/c", "data", ZOO_PERSISTENT, 1000, &created), ZOK);
  EXPECT_EQ(created, "/a/b/c");
  EXPECT_EQ(tree.NodeCount(), 4u) << "root, /a, /a/b, /a/b/c";

  std::string data;
  Stat parent{};
  Stat child{};
  ASSERT_EQ(tree.Get("/a/b", &data, &parent), ZOK);
  EXPECT_EQ(data, "");
  ASSERT_EQ(tree.Get("/a/b/c", &data, &child), ZOK);
  EXPECT_EQ(data, "data");
  EXPECT_EQ(child.dataLength, 4);
  EXPECT_EQ(child.ctime, 1000);
  EXPECT_EQ(child.mtime, 1000);
  EXPECT_GT(child.czxid, parent.czxid) << "parents are made before the node";
  EXPECT_EQ(parent.numChildren, 1);
  EXPECT_EQ(parent.cversion, 1);
  EXPECT_EQ(parent.pzxid, child.czxid) << "the parent's last child change is this creation";

  ASSERT_EQ(tree.Create("/a/b/d", "", ZOO_EPHEMERAL, 2000, nullptr), ZOK);
  Stat sibling{};
  ASSERT_EQ(tree.Get("/a/b/d", nullptr, &sibling), ZOK);
  ASSERT_EQ(tree.Get("/a/b", nullptr, &parent), ZOK);
  EXPECT_EQ(sibling.czxid, child.czxid + 1);
  EXPECT_EQ(sibling.ephemeralOwner, kSession);
  EXPECT_EQ(child.ephemeralOwner, 0);
  EXPECT_EQ(parent.numChildren, 2);
  EXPECT_EQ(parent.cversion, 2);
  EXPECT_EQ(parent.pzxid, sibling.czxid);
}

TEST(NodeTree, RefusesWhatAServerWouldRefuse) {
  NodeTree tree(kSession);
  ASSERT_EQ(tree.Create("/e", "", ZOO_EPHEMERAL, 1, nullptr), ZOK);
  EXPECT_EQ(tree.Create("/e", "", ZOO_EPHEMERAL, 1, nullptr), ZNODEEXISTS);
  EXPECT_EQ(tree.Create("/", "", ZOO_PERSISTENT, 1, nullptr), ZNODEEXISTS);
  EXPECT_EQ(tree.Create("/e/child", "", ZOO_PERSISTENT, 1, nullptr), ZNOCHILDRENFOREPHEMERALS);
  EXPECT_EQ(tree.Create("/e/deep/child", "", ZOO_PERSISTENT, 1, nullptr), ZNOCHILDRENFOREPHEMERALS);
  EXPECT_EQ(tree.Create("/c", "", ZOO_CONTAINER, 1, nullptr), ZBADARGUMENTS);
  EXPECT_EQ(tree.Create("relative", "", ZOO_PERSISTENT, 1, nullptr), ZBADARGUMENTS);
  EXPECT_EQ(tree.NodeCount(), 2u) << "nothing was made by a refused create";
  EXPECT_EQ(tree.Get("/missing", nullptr, nullptr), ZNONODE);
  EXPECT_EQ(tree.List("/missing", nullptr, nullptr), ZNONODE);
}

TEST(NodeTree, ListsChildrenInNameOrderFromTheRootDown) {
  NodeTree tree(kSession);
  ASSERT_EQ(tree.Create("/n/zeta", "z", ZOO_PERSISTENT, 1, nullptr), ZOK);
  ASSERT_EQ(tree.Create("/n/alpha", "a", ZOO_PERSISTENT, 1, nullptr), ZOK);
  std::vector<ZKKeyValue> children;
  Stat stat{};
  ASSERT_EQ(tree.List("/n", &stat, &children), ZOK);
  ASSERT_EQ(children.size(), 2u);
  EXPECT_EQ(children[0].key, "alpha");
  EXPECT_EQ(children[0].value, "a");
  EXPECT_EQ(children[1].key, "zeta");
  EXPECT_EQ(stat.numChildren, 2);

  children.clear();
  ASSERT_EQ(tree.List("/", &stat, &children), ZOK);
  ASSERT_EQ(children.size(), 1u);
  EXPECT_EQ(children[0].key, "n");
  EXPECT_EQ(children[0].stat.numChildren, 2);
}

TEST(NodeTree, SequentialNamesCountTheParentsChildCreations) {
  NodeTree tree(kSession);
  ASSERT_EQ(tree.Create("/q/other", "", ZOO_PERSISTENT, 1, nullptr), ZOK);
  std::string created;
  ASSERT_EQ(tree.Create("/q/job-", "", ZOO_EPHEMERAL_SEQUENTIAL, 1, &created), ZOK);
  EXPECT_EQ(created, "/q/job-0000000001");
  ASSERT_EQ(tree.Create("/q/", "", ZOO_PERSISTENT_SEQUENTIAL, 1, &created), ZOK);
  EXPECT_EQ(created, "/q/0000000002");
}

}  // namespace
}  // namespace zelvar::registry
