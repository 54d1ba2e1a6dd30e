// Protobuf streams over libevent buffers: a frame is parsed in place out of a
// connection's input and consumed whole, and an envelope is serialised into
// evbuffer space block by block.
#include "framework/evbuffer_zero_copy_stream.h"

#include <arpa/inet.h>
#include <event2/event.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "zelvar/dorvan.pb.h"
#include "zelvar/message.pb.h"

namespace {

using ::testing::AllOf;
using ::testing::HasSubstr;

std::string Prefix(uint32_t length) {
  uint32_t big = htonl(length);
  return std::string(reinterpret_cast<const char*>(&big), sizeof(big));
}

std::string Drain(evbuffer* buffer) {
  std::string bytes(evbuffer_get_length(buffer), '\0');
  if (!bytes.empty()) evbuffer_remove(buffer, &bytes[0], bytes.size());
  return bytes;
}

zelvar::ZMessage BlobEnvelope(size_t blobSize) {
  zelvar::ZMessage message;
  message.mutable_head()->set_message_type(1010);
  message.mutable_head()->set_flow_no(77);
  message.mutable_body()->MutableExtension(zelvar::dorvan::replace_blob_request)->set_blob(std::string(blobSize, 'b'));
  return message;
}

class InputStreamTest : public ::testing::Test {
 protected:
  InputStreamTest() : base_(event_base_new()) {
    bufferevent* pair[2];
    bufferevent_pair_new(base_, 0, pair);
    bev_ = pair[0];
    other_ = pair[1];
    // A bufferevent keeps the end of its input for itself; the test plays the
    // connection's part and appends there directly.
    evbuffer_unfreeze(Input(), 0);
  }
  ~InputStreamTest() override {
    bufferevent_free(bev_);
    bufferevent_free(other_);
    event_base_free(base_);
  }

  evbuffer* Input() { return bufferevent_get_input(bev_); }
  // Appends bytes the buffer refers to instead of copying, one block each, so
  // a test can see that the stream hands out these very bytes.
  void AddBlock(const std::string& bytes) { evbuffer_add_reference(Input(), bytes.data(), bytes.size(), nullptr, nullptr); }

  event_base* base_;
  bufferevent* bev_;
  bufferevent* other_;
};

TEST_F(InputStreamTest, ReadsOneFrameInPlaceAcrossBlocksAndConsumesExactlyIt) {
  const std::string prefix = Prefix(10);
  const std::string first = "abcdef";
  const std::string second = "ghijXYZ";  // the frame ends after "ghij"
  AddBlock(prefix);
  AddBlock(first);
  AddBlock(second);
  {
    evbufferZeroCopyInputStream stream(bev_);
    stream.SetLimit(14);
    EXPECT_EQ(stream.ByteCount(), 4);

    const void* data = nullptr;
    int size = 0;
    ASSERT_TRUE(stream.Next(&data, &size));
    EXPECT_EQ(data, first.data());
    EXPECT_EQ(size, 6);
    ASSERT_TRUE(stream.Next(&data, &size));
    EXPECT_EQ(data, second.data());
    EXPECT_EQ(size, 4) << "the limit cuts the block";
    EXPECT_EQ(stream.ByteCount(), 14);
    EXPECT_FALSE(stream.Next(&data, &size));

    stream.BackUp(3);
    EXPECT_EQ(stream.ByteCount(), 11);
    ASSERT_TRUE(stream.Next(&data, &size));
    EXPECT_EQ(std::string(static_cast<const char*>(data), size), "hij");
    EXPECT_EQ(evbuffer_get_length(Input()), 17u) << "reading drains nothing";
  }
  EXPECT_EQ(Drain(Input()), "XYZ");
}

TEST_F(InputStreamTest, SkipDrainsAtOnceButLeavesThePositionAlone) {
  const std::string bytes = Prefix(6) + "uvwxyz";
  AddBlock(bytes);
  {
    evbufferZeroCopyInputStream stream(bev_);
    stream.SetLimit(10);
    EXPECT_FALSE(stream.Skip(11));
    EXPECT_EQ(evbuffer_get_length(Input()), 10u);
    EXPECT_TRUE(stream.Skip(3));
    EXPECT_EQ(evbuffer_get_length(Input()), 7u);
    EXPECT_EQ(stream.ByteCount(), 4);
  }
  // The destructor drains the 4 bytes of its position on top of the skip.
  EXPECT_EQ(Drain(Input()), "xyz");
}

TEST_F(InputStreamTest, EnvelopeParsesFromAFrameSplitOverManyBlocks) {
  zelvar::ZMessage sent = BlobEnvelope(5000);
  std::string body = sent.SerializeAsString();
  std::string prefix = Prefix(static_cast<uint32_t>(body.size()));
  std::vector<std::string> pieces;
  for (size_t at = 0; at < body.size(); at += 700) pieces.push_back(body.substr(at, 700));
  AddBlock(prefix);
  for (const std::string& piece : pieces) AddBlock(piece);
  const std::string next = Prefix(0);
  AddBlock(next);

  zelvar::ZMessage received;
  {
    evbufferZeroCopyInputStream stream(bev_);
    stream.SetLimit(static_cast<int32_t>(body.size() + 4));
    ASSERT_TRUE(received.ParseFromZeroCopyStream(&stream));
  }
  EXPECT_EQ(received.SerializeAsString(), body);
  EXPECT_EQ(Drain(Input()), next);
}

TEST(OutputStream, LargeEnvelopeIsSerialisedInBlocksWithItsExactBytes) {
  zelvar::ZMessage message = BlobEnvelope(300000);
  evbufferZeroCopyOutputStream stream;
  ASSERT_TRUE(message.SerializeToZeroCopyStream(&stream));
  EXPECT_EQ(stream.ByteCount(), static_cast<int64_t>(message.ByteSizeLong()));
  EXPECT_EQ(Drain(stream.Buffer()), message.SerializeAsString());
}

TEST(OutputStream, BackUpKeepsOnlyTheWrittenPartOfTheLastBlock) {
  evbufferZeroCopyOutputStream stream;
  void* data = nullptr;
  int size = 0;
  ASSERT_TRUE(stream.Next(&data, &size));
  ASSERT_GE(size, 131072);
  std::memcpy(data, "0123456789", 10);
  stream.BackUp(size - 10);
  EXPECT_EQ(stream.ByteCount(), 10);
  ASSERT_TRUE(stream.Next(&data, &size));
  stream.BackUp(size);
  EXPECT_EQ(stream.ByteCount(), 10);
  EXPECT_EQ(Drain(stream.Buffer()), "0123456789");
}

TEST(OutputStream, EnvelopeThatFillsItsBlockExactlyIsKeptWhole) {
  int blockSize = 0;
  {
    evbufferZeroCopyOutputStream probe;
    void* data = nullptr;
    ASSERT_TRUE(probe.Next(&data, &blockSize));
  }
  // Grow the blob until the envelope is exactly one block: the serialiser
  // then has nothing to give back and never calls BackUp.
  size_t blob = static_cast<size_t>(blockSize) - 64;
  zelvar::ZMessage message = BlobEnvelope(blob);
  while (message.ByteSizeLong() < static_cast<size_t>(blockSize)) message = BlobEnvelope(++blob);
  ASSERT_EQ(message.ByteSizeLong(), static_cast<size_t>(blockSize));

  evbufferZeroCopyOutputStream stream;
  ASSERT_TRUE(message.SerializeToZeroCopyStream(&stream));
  EXPECT_EQ(Drain(stream.Buffer()), message.SerializeAsString());
}

TEST(OutputStreamDeathTest, BackingUpMoreThanTheLastBlockStopsTheProcess) {
  EXPECT_DEATH(
      {
        evbufferZeroCopyOutputStream stream;
        void* data = nullptr;
        int size = 0;
        stream.Next(&data, &size);
        stream.BackUp(size + 1);
      },
      AllOf(HasSubstr("evbuffer_zero_copy_stream.cpp:94"),
            HasSubstr("Assertion `(unsigned)count <= m_sPrevVector[0].iov_len' failed")));
}

}  // namespace
