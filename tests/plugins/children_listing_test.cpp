// Gathering one "listvalue" answer from ZooKeeper's separate replies.
#include "zookeeper/children_listing.h"

#include <gtest/gtest.h>

#include <memory>

namespace zelvar::registry {
namespace {

Stat StatWithLength(int32_t length) {
  Stat stat{};
  stat.dataLength = length;
  return stat;
}

TEST(ChildrenListing, AnswersOnceEveryChildIsBackInListingOrder) {
  Stat parent = StatWithLength(0);
  parent.numChildren = 3;
  ChildrenListing listing(7, parent, {"m1", "m2", "m3"});
  Stat s1 = StatWithLength(2), s2 = StatWithLength(5), s3 = StatWithLength(1);

  listing.ChildFetched(2, ZOK, "c", 1, &s3);
  EXPECT_EQ(listing.TakeAnswer(), nullptr);
  listing.ChildFetched(0, ZOK, "aa", 2, &s1);
  listing.ChildFetched(0, ZOK, "late duplicate", 14, &s1);  // a reply is counted once
  EXPECT_EQ(listing.TakeAnswer(), nullptr);
  listing.ChildFetched(1, ZOK, std::string("b\0bbb", 5).c_str(), 5, &s2);

  std::unique_ptr<ZKPluginResponse> answer(listing.TakeAnswer());
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(listing.TakeAnswer(), nullptr) << "handed out once";
  EXPECT_EQ(listing.MachineId(), 7u);
  EXPECT_EQ(answer->retcode, 0);
  EXPECT_EQ(answer->stat.numChildren, 3);
  ASSERT_EQ(answer->keyvalues.size(), 3u);
  EXPECT_EQ(answer->keyvalues[0].key, "m1");
  EXPECT_EQ(answer->keyvalues[0].value, "aa");
  EXPECT_EQ(answer->keyvalues[1].value, std::string("b\0bbb", 5));
  EXPECT_EQ(answer->keyvalues[1].stat.dataLength, 5);
  EXPECT_EQ(answer->keyvalues[2].value, "c");
}

TEST(ChildrenListing, AChildThatVanishedIsLeftOut) {
  ChildrenListing listing(1, Stat{}, {"gone", "kept"});
  Stat stat = StatWithLength(1);
  listing.ChildFetched(0, ZNONODE, nullptr, -1, nullptr);
  listing.ChildFetched(1, ZOK, "k", 1, &stat);
  std::unique_ptr<ZKPluginResponse> answer(listing.TakeAnswer());
  ASSERT_NE(answer, nullptr);
  ASSERT_EQ(answer->keyvalues.size(), 1u);
  EXPECT_EQ(answer->keyvalues[0].key, "kept");
}

TEST(ChildrenListing, AnyOtherErrorFailsTheWholeListingAtOnce) {
  ChildrenListing listing(1, Stat{}, {"a", "b", "c"});
  listing.ChildFetched(1, ZCONNECTIONLOSS, nullptr, -1, nullptr);
  std::unique_ptr<ZKPluginResponse> answer(listing.TakeAnswer());
  ASSERT_NE(answer, nullptr) << "no need to wait for the other reads";
  EXPECT_EQ(answer->retcode, ZCONNECTIONLOSS);
  EXPECT_EQ(answer->error_message, "connection loss");
  EXPECT_TRUE(answer->keyvalues.empty());

  Stat stat{};
  listing.ChildFetched(0, ZOK, "a", 1, &stat);
  listing.ChildFetched(2, ZOK, "c", 1, &stat);
  listing.Fail(ZSESSIONEXPIRED);
  EXPECT_EQ(listing.TakeAnswer(), nullptr) << "the failed listing was answered already";
}

TEST(ChildrenListing, ANodeWithoutChildrenIsAnsweredAtOnce) {
  ChildrenListing listing(1, StatWithLength(3), {});
  std::unique_ptr<ZKPluginResponse> answer(listing.TakeAnswer());
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer->retcode, 0);
  EXPECT_EQ(answer->type, ZKPluginResponse::T_KEYVALUES);
  EXPECT_TRUE(answer->keyvalues.empty());
  EXPECT_EQ(answer->stat.dataLength, 3);
}

}  // namespace
}  // namespace zelvar::registry
