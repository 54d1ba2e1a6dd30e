// Connections of the in-process host: frames in and out, split and batched
// frames, the input bound, reuse of outbound connections.
#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include "frame.h"
#include "test_support.h"

namespace {

using host_test::ProbeHost;

// Splits a byte stream into the envelopes of its complete frames.
std::vector<zelvar::ZMessage> DecodeFrames(std::string* bytes) {
  std::vector<zelvar::ZMessage> messages;
  while (bytes->size() >= 4) {
    auto* p = reinterpret_cast<const unsigned char*>(bytes->data());
    size_t length = (size_t{p[0]} << 24) | (size_t{p[1]} << 16) | (size_t{p[2]} << 8) | p[3];
    if (bytes->size() < length + 4) break;
    zelvar::ZMessage message;
    EXPECT_TRUE(message.ParseFromArray(bytes->data() + 4, static_cast<int>(length)));
    messages.push_back(message);
    bytes->erase(0, length + 4);
  }
  return messages;
}

class HostConnections : public ::testing::Test {
 protected:
  void Start(const std::string& extra = std::string()) {
    fixture_ = std::make_unique<ProbeHost>("[network]\nlisten-ip = 127.0.0.1\n" + extra);
  }
  std::unique_ptr<ProbeHost> fixture_;
};

TEST(HostListener, PortZeroMeansNoListeningSocket) {
  ProbeHost fixture("[network]\nlisten-port = 0\n");
  ASSERT_TRUE(fixture.ok()) << fixture.error();
  EXPECT_EQ(fixture.host().Connections().ListenPort(), 0);
}

TEST_F(HostConnections, InboundRequestsAreAnsweredWholeSplitOrBatched) {
  // listen-port = 0 would mean "no socket", so listen on a free port chosen now.
  int port = 0;
  int probeSocket = host_test::ListenLoopback(&port);
  ASSERT_GE(probeSocket, 0);
  close(probeSocket);
  Start("listen-port = " + std::to_string(port) + "\n");
  ASSERT_TRUE(fixture_->ok()) << fixture_->error();
  ASSERT_EQ(fixture_->host().Connections().ListenPort(), port);
  probe::Control& probe = fixture_->probe();

  int client = host_test::ConnectLoopback(port);
  ASSERT_GE(client, 0);
  ASSERT_TRUE(fixture_->RunUntil([&] { return probe.connects.size() == 1; }));
  auto [connA, connB] = probe.connects[0];
  bufferevent* bev = fixture_->Slot<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB);
  EXPECT_NE(bev, nullptr);
  EXPECT_EQ(fixture_->Slot<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB + 1000), nullptr);

  // Two frames in one write.
  std::string two = probe::EncodeFrame(probe::MakeMessage(probe::kProbeMachineType, 1, "a", 0, 11)) +
                    probe::EncodeFrame(probe::MakeMessage(probe::kProbeMachineType, 1, "b", 0, 12));
  ASSERT_TRUE(host_test::SendAll(client, two));
  // One frame a byte at a time, with loop turns in between.
  std::string split = probe::EncodeFrame(probe::MakeMessage(probe::kProbeMachineType, 1, "c", 0, 13));
  for (char byte : split) {
    ASSERT_TRUE(host_test::SendAll(client, std::string(1, byte)));
    fixture_->host().RunUntil([] { return false; }, 0.002);
  }
  std::string received;
  std::vector<zelvar::ZMessage> replies;
  ASSERT_TRUE(fixture_->RunUntil([&] {
    host_test::ReadAvailable(client, &received);
    for (auto& reply : DecodeFrames(&received)) replies.push_back(reply);
    return replies.size() >= 3;
  }));
  ASSERT_EQ(replies.size(), 3u);
  const char* sessions[] = {"echo:a", "echo:b", "echo:c"};
  const unsigned sources[] = {11, 12, 13};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(replies[i].head().session(), sessions[i]);
    EXPECT_EQ(replies[i].head().message_type(), probe::kProbeReplyType);
    EXPECT_EQ(replies[i].head().dst_machine_id(), sources[i]);
  }

  close(client);
  ASSERT_TRUE(fixture_->RunUntil([&] { return probe.disconnects.size() == 1; }));
  EXPECT_EQ(probe.disconnects[0], probe.connects[0]);
  EXPECT_EQ(fixture_->Slot<zelvar::GetConnectionBevFn>(zelvar::kSlotGetConnectionBev)(connA, connB), nullptr);
}

TEST_F(HostConnections, UndecodableDataAndLyingLengthsCloseTheConnection) {
  int port = 0;
  int probeSocket = host_test::ListenLoopback(&port);
  close(probeSocket);
  Start("listen-port = " + std::to_string(port) + "\ninput_limit = 4096\n");
  ASSERT_TRUE(fixture_->ok()) << fixture_->error();
  probe::Control& probe = fixture_->probe();

  // A frame whose bytes are not an envelope: OnDataIn answers -1.
  int garbage = host_test::ConnectLoopback(port);
  ASSERT_TRUE(host_test::SendAll(garbage, probe::LengthPrefix(3) + "\xff\xff\xff"));
  std::string ignored;
  ASSERT_TRUE(fixture_->RunUntil([&] { return !host_test::ReadAvailable(garbage, &ignored); }));
  EXPECT_EQ(probe.disconnects.size(), 1u);
  close(garbage);

  // A prefix announcing a megabyte: the host closes the connection once more
  // than the input bound is buffered, instead of waiting for the rest.
  int liar = host_test::ConnectLoopback(port);
  ASSERT_TRUE(host_test::SendAll(liar, probe::LengthPrefix(1 << 20)));
  std::string chunk(1024, 'z');
  bool open = true;
  ASSERT_TRUE(fixture_->RunUntil([&] {
    if (open) host_test::SendAll(liar, chunk);
    open = host_test::ReadAvailable(liar, &ignored);
    return !open;
  }));
  close(liar);
  EXPECT_EQ(probe.disconnects.size(), 2u);
  EXPECT_NE(fixture_->LogText().find("over the input limit of 4096"), std::string::npos);
  EXPECT_EQ(fixture_->host().Connections().Count(), 0u);
}

TEST(HostOutbound, ConnectToReusesTheConnectionAndRoutesRepliesBack) {
  ProbeHost fixture;
  ASSERT_TRUE(fixture.ok()) << fixture.error();
  probe::Control& probe = fixture.probe();
  int port = 0;
  int server = host_test::ListenLoopback(&port);
  ASSERT_GE(server, 0);

  // A machine waiting for a reply, as a machine that sent a request would.
  zelvar::StateMachine* machine =
      fixture.Slot<zelvar::CreateMachineForMessageFn>(zelvar::kSlotCreateMachineForMessage)(probe::kProbeMachineType);
  uint32_t id = machine->GetMachineId();
  fixture.Slot<zelvar::PostToMachineFn>(zelvar::kSlotPostToMachine)(
      new zelvar::ZMessage(probe::MakeMessage(1, 1, "start")), machine, id);

  auto connectTo = fixture.Slot<zelvar::ConnectToFn>(zelvar::kSlotConnectTo);
  bufferevent* bev = connectTo("127.0.0.1", static_cast<unsigned short>(port), 0);
  ASSERT_NE(bev, nullptr);
  EXPECT_EQ(connectTo("127.0.0.1", static_cast<unsigned short>(port), 0), bev) << "reused while connecting";
  std::string request = probe::EncodeFrame(probe::MakeMessage(9, 1, "question", 0, id));
  ASSERT_EQ(bufferevent_write(bev, request.data(), request.size()), 0);  // buffered until connected

  int peer = -1;
  std::string received;
  ASSERT_TRUE(fixture.RunUntil([&] {
    if (peer < 0) peer = accept4(server, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (peer >= 0) host_test::ReadAvailable(peer, &received);
    return received.size() >= request.size();
  }));
  EXPECT_EQ(received, request);
  EXPECT_EQ(probe.connects.size(), 1u);
  EXPECT_EQ(connectTo("127.0.0.1", static_cast<unsigned short>(port), 0), bev) << "reused once connected";
  EXPECT_EQ(fixture.host().Connections().Count(), 1u);

  ASSERT_TRUE(host_test::SendAll(peer, probe::EncodeFrame(probe::MakeMessage(10, 2, "answer", id))));
  ASSERT_TRUE(fixture.RunUntil([&] { return !probe.seen.empty() && probe.seen.back().session == "answer"; }));
  EXPECT_EQ(probe.seen.back().machine_id, id);
  EXPECT_EQ(probe.seen.back().state, 1);

  // The server goes away; the next ConnectTo opens a new connection.
  close(peer);
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.disconnects.size() == 1; }));
  bufferevent* again = connectTo("127.0.0.1", static_cast<unsigned short>(port), 0);
  ASSERT_NE(again, nullptr);
  close(server);
  // Nobody listens any more: the connect fails, the host closes it and says so.
  ASSERT_TRUE(fixture.RunUntil([&] { return probe.disconnects.size() == 2; }));
  EXPECT_EQ(fixture.host().Connections().Count(), 0u);

  EXPECT_EQ(connectTo("not-an-address", 80, 0), nullptr);
}

}  // namespace
