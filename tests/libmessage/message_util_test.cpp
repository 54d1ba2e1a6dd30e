#include "zelvar/message_util.h"

#include <gtest/gtest.h>

#include "zelvar/message_pool.h"
#include "zelvar/my_uuid.h"

namespace zelvar {
namespace {

ZMessage ThroughTheWire(const ZMessage& message) {
  std::string bytes;
  EXPECT_TRUE(message.SerializeToString(&bytes));
  ZMessage parsed;
  EXPECT_TRUE(parsed.ParseFromString(bytes));
  return parsed;
}

TEST(NewMessage, FillsEveryHeadFieldOfARequest) {
  ZMessage request;
  request.mutable_head()->set_result(9);  // left over from an earlier use
  request.mutable_head()->set_dst_machine_id(77);
  NewMessage(&request, 41, "session-1", 66015, 0, false, 1234, 0, nullptr, nullptr, nullptr);
  const Head head = ThroughTheWire(request).head();
  EXPECT_EQ(head.message_type(), 66015u);
  EXPECT_EQ(head.kind(), 1u);
  EXPECT_EQ(head.flow_no(), 41u);
  EXPECT_EQ(head.session(), "session-1");
  EXPECT_EQ(head.src_machine_id(), 1234u);
  EXPECT_EQ(head.dst_machine_id(), 0u);
  EXPECT_EQ(head.owner_machine_id(), 1234u);
  EXPECT_EQ(head.result(), 0);
}

TEST(MakeResponse, RoutesTheAnswerBackToTheAskingMachine) {
  ZMessage request;
  NewMessage(&request, 7, "abc", 67000, 0, false, 55, 0, nullptr, nullptr, nullptr);
  request.mutable_head()->set_owner_machine_id(66);  // forwarded on behalf of another machine
  ZMessage received = ThroughTheWire(request);

  ZMessage response;
  MakeResponse(received, 67001, &response);
  const Head head = ThroughTheWire(response).head();
  EXPECT_EQ(head.message_type(), 67001u);
  EXPECT_EQ(head.kind(), 2u);
  EXPECT_EQ(head.flow_no(), 7u);
  EXPECT_EQ(head.session(), "abc");
  EXPECT_EQ(head.src_machine_id(), 0u);
  EXPECT_EQ(head.dst_machine_id(), 55u);
  EXPECT_EQ(head.owner_machine_id(), 66u);
  EXPECT_EQ(head.result(), 0);
}

TEST(MyUuid, GivesDistinctCanonicalUuids) {
  std::string first = MyUuid::NewUuid();
  std::string second = MyUuid::NewUuid();
  EXPECT_NE(first, second);
  ASSERT_EQ(first.size(), 36u);
  for (size_t i : {8u, 13u, 18u, 23u}) EXPECT_EQ(first[i], '-');
  EXPECT_EQ(first[14], '4') << "random UUIDs are version 4";
  EXPECT_EQ(first.find_first_not_of("0123456789abcdef-"), std::string::npos);
}

TEST(MessagePool, ReusesReleasedEnvelopesUpToItsCapacity) {
  MessagePool pool(2);
  EXPECT_EQ(pool.Acquire(), nullptr);
  auto* a = new ZMessage;
  auto* b = new ZMessage;
  auto* c = new ZMessage;
  pool.Release(a);
  pool.Release(b);
  pool.Release(c);  // over capacity: deleted (the sanitizer build sees a leak otherwise)
  pool.Release(nullptr);
  EXPECT_EQ(pool.Size(), 2u);
  ZMessage* first = pool.Acquire();
  ZMessage* second = pool.Acquire();
  EXPECT_TRUE((first == a && second == b) || (first == b && second == a));
  EXPECT_EQ(pool.Acquire(), nullptr);
  pool.Release(first);
  pool.Release(second);
  pool.SetCapacity(1);
  EXPECT_EQ(pool.Size(), 1u);
}

}  // namespace
}  // namespace zelvar
