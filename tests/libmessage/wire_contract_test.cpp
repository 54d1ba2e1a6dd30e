// The wire contract as generated code: every body extension is numbered after
// its message type, the MessageType enum names each one, and bodies survive a
// trip through the wire.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>

#include "zelvar/dorvan.pb.h"
#include "zelvar/kadri.pb.h"
#include "zelvar/message.pb.h"
#include "zelvar/ovita2.pb.h"
#include "zelvar/tellar2.pb.h"

namespace zelvar {
namespace {

using google::protobuf::DescriptorPool;
using google::protobuf::FieldDescriptor;

template <typename Message>
Message Reparsed(const Message& message) {
  std::string bytes;
  EXPECT_TRUE(message.SerializeToString(&bytes));
  Message parsed;
  EXPECT_TRUE(parsed.ParseFromString(bytes));
  return parsed;
}

TEST(WireContract, EveryBodyExtensionIsNumberedAfterItsMessageType) {
  std::vector<const FieldDescriptor*> extensions;
  DescriptorPool::generated_pool()->FindAllExtensions(Body::descriptor(), &extensions);
  ASSERT_EQ(extensions.size(), 20u);
  const auto* types = ovita2::MessageType_descriptor();
  for (const FieldDescriptor* extension : extensions) {
    std::string upper = extension->name();
    std::transform(upper.begin(), upper.end(), upper.begin(), [](unsigned char c) { return std::toupper(c); });
    const auto* value = types->FindValueByName(upper);
    ASSERT_NE(value, nullptr) << extension->full_name() << " has no MessageType value";
    EXPECT_EQ(value->number(), extension->number()) << extension->full_name();
  }
  EXPECT_EQ(types->value_count(), 20);
  EXPECT_EQ(ovita2::AGENT_HEART_BEAT_REQUEST, 66015);
  EXPECT_EQ(ovita2::GET_AGGREGATION_RESPONSE, 66001);
}

TEST(WireContract, RequestBodiesRoundTripThroughTheEnvelope) {
  ZMessage message;
  Body* body = message.mutable_body();
  auto* jobs = body->MutableExtension(ovita2::get_job_response);
  jobs->mutable_rc()->set_code(0);
  auto* objectJob = jobs->add_object_jobs();
  objectJob->set_object_id(12);
  auto* job = objectJob->mutable_job();
  job->set_job_id(3);
  job->set_stat_item(40);
  job->set_interval(60);
  job->set_command("cat /proc/loadavg");
  job->set_command_args("| cut -d' ' -f1");
  job->set_second_phase(1);
  job->set_second_phase_command("echo");
  job->set_second_phase_delay(5);
  job->set_stat_key("load");
  job->set_string_value(0);
  job->set_description("load average");
  auto* stats = body->MutableExtension(tellar2::record_stats_request)->add_stats();
  stats->set_name("load");
  stats->set_value(-1234567890123LL);
  body->MutableExtension(dorvan::replace_blob_request)->set_blob(std::string("a\0b", 3));
  body->MutableExtension(ovita2::agent_heart_beat_request)->set_job_count(4);

  ZMessage parsed = Reparsed(message);
  const auto& got = parsed.body().GetExtension(ovita2::get_job_response);
  ASSERT_EQ(got.object_jobs_size(), 1);
  EXPECT_EQ(got.object_jobs(0).object_id(), 12u);
  EXPECT_EQ(got.object_jobs(0).job().DebugString(), job->DebugString());
  EXPECT_EQ(parsed.body().GetExtension(tellar2::record_stats_request).stats(0).value(), -1234567890123LL);
  EXPECT_EQ(parsed.body().GetExtension(dorvan::replace_blob_request).blob(), std::string("a\0b", 3));
  EXPECT_EQ(parsed.body().GetExtension(ovita2::agent_heart_beat_request).job_count(), 4u);
  EXPECT_FALSE(parsed.body().HasExtension(ovita2::get_conf_response));
}

TEST(WireContract, FieldNumbersMatchTheContractBytes) {
  // A peer in another language reads these exact bytes.
  kadri::NameNodeContent node;
  node.set_ip("127.0.0.1");
  node.set_port(7000);
  std::string bytes;
  node.SerializeToString(&bytes);
  EXPECT_EQ(bytes, std::string("\x0a\x09" "127.0.0.1" "\x10\xd8\x36", 14));

  ZMessage message;
  message.mutable_head()->set_message_type(66015);
  message.mutable_head()->set_dst_machine_id(5);
  message.SerializeToString(&bytes);
  // head = field 1; message_type = field 1 varint 66015; dst_machine_id = field 6.
  EXPECT_EQ(bytes, std::string("\x0a\x06\x08\xdf\x83\x04\x30\x05", 8));
}

}  // namespace
}  // namespace zelvar
