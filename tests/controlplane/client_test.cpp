// ovita2ctl run in-process: each command's output and exit status, following
// new rows, and the conversation with an agent played by a loopback thread.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client/client_app.h"
#include "local_system.h"
#include "store_test_support.h"
#include "zelvar/frame.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

namespace controlplane {
namespace {

namespace ov = zelvar::ovita2;
constexpr int64_t kNoon = 1700049600;  // 2023-11-15 12:00:00 UTC
constexpr int kUsage = -1;              // a usage mistake: the parser's own status, above 2

int Ctl(std::vector<std::string> args, std::ostream& out, std::ostream& err) {
  args.insert(args.begin(), "ovita2ctl");
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  return RunClient(static_cast<int>(argv.size()), argv.data(), out, err);
}

struct Outcome {
  int status;
  std::string out, err;
};
Outcome Ctl(const std::vector<std::string>& args) {
  std::ostringstream out, err;
  const int status = Ctl(args, out, err);
  return {status, out.str(), err.str()};
}

// An output stream that lets the test act each time the client flushes, which
// a follower does after every batch: rows stored then arrive "between polls".
class FlushHook : public std::stringbuf {
 public:
  explicit FlushHook(std::function<void(int)> onFlush) : m_fnOnFlush(std::move(onFlush)) {}

 protected:
  int sync() override {
    m_fnOnFlush(++m_iFlushes);
    return 0;
  }

 private:
  std::function<void(int)> m_fnOnFlush;
  int m_iFlushes = 0;
};

class ClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    unsetenv("OVITA2_DB");
    ASSERT_TRUE(store.Open(db, &error)) << error;
  }
  void Store(const std::vector<SampleRow>& rows) { ASSERT_TRUE(store.AddSamples(rows, &error)) << error; }
  SampleRow Load(const std::string& agent, int64_t tenths) { return NumericRow(agent, 1, "load", tenths, kNoon); }

  ovita2::testing::TempDir dir;
  const std::string db = dir.Path() + "/cp.db";
  SampleStore store;
  std::string error;
};

TEST_F(ClientTest, ReadingCommandsPrintWhatTheyAskForAndExitWithTheirStatus) {
  Store({TextRow("odd", "raw", "\xff\xfe\n", kNoon), NumericRow("web-01", 1, "load", 123, kNoon),
         NumericRow("web-01", 1, "load", -5, kNoon), NumericRow("db-7", 22, "temp", 0, kNoon),
         TextRow("web-01", "ps", "a\tb\nc\n", kNoon), TextRow("web-01", "motd", "two\n\n", kNoon)});
  ASSERT_TRUE(store.TouchAgent("web-02", "", "", kNoon, &error));
  ASSERT_TRUE(store.RecordHeartbeat("web-01", "10.0.0.1", kNoon + 61, "2.1.0", 4, &error));
  for (const char* agent : {"web-01", "web-02", "web-01"}) ASSERT_TRUE(store.AddRealTimeLine(agent, kNoon, agent, &error));
  const std::string nowhere = dir.Path() + "/nowhere.db";
  setenv("OVITA2_DB", db.c_str(), 1);
  struct Case {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::string err;  // its start
  };
  const std::vector<Case> cases = {
      {{"samples", "--db", db, "--limit", "5"}, 0,
       "TIME                 AGENT   OBJECT  NAME  VALUE\n"
       "2023-11-15 12:00:00  web-01  1       load  12.3\n"
       "2023-11-15 12:00:00  web-01  1       load  -0.5\n"
       "2023-11-15 12:00:00  db-7    22      temp  0.0\n"
       "2023-11-15 12:00:00  web-01  -       ps    a\\tb\\nc\n"
       "2023-11-15 12:00:00  web-01  -       motd  two\\n\n", ""},
      {{"samples", "--json", "--agent", "web-01", "--object", "01", "--limit", "1"}, 0,
       R"({"id":3,"received_at":1700049600,"agent":"web-01","kind":"numeric","object_id":1,"name":"load",)"
       R"("stat_item":1001,"tenths":-5,"value":-0.5})" "\n", ""},
      {{"samples", "--json", "--name", "ps"}, 0,
       R"({"id":5,"received_at":1700049600,"agent":"web-01","kind":"text","object_id":null,"name":"ps",)"
       R"("job_id":3,"text":"a\tb\nc\n","sample_time":1700049599})" "\n", ""},
      {{"samples", "--json", "--name", "raw"}, 0,
       R"({"id":1,"received_at":1700049600,"agent":"odd","kind":"text","object_id":null,"name":"raw",)"
       "\"job_id\":3,\"text\":\"\xef\xbf\xbd\xef\xbf\xbd\\n\",\"sample_time\":1700049599}\n", ""},
      {{"agents", "--db", db}, 0,
       "NAME    LAST HEARTBEAT       VERSION  JOBS  LAST SEEN            ADDRESS   NODE PATH\n"
       "web-01  2023-11-15 12:01:01  2.1.0    4     2023-11-15 12:01:01  10.0.0.1  -\n"
       "web-02  never                -        0     2023-11-15 12:00:00  -         -\n", ""},
      {{"agents", "--json"}, 0,
       R"({"name":"web-01","last_heartbeat":1700049661,"version":"2.1.0","job_count":4,"last_seen":1700049661,)"
       R"("first_seen":1700049661,"address":"10.0.0.1","node_path":""})" "\n"
       R"({"name":"web-02","last_heartbeat":null,"version":"","job_count":0,"last_seen":1700049600,)"
       R"("first_seen":1700049600,"address":"","node_path":""})" "\n", ""},
      {{"lines", "--agent", "web-01", "--limit", "1", "--json"}, 0,
       R"({"id":3,"received_at":1700049600,"agent":"web-01","line":"web-01"})" "\n", ""},
      {{"samples", "--db", nowhere}, 2, "", nowhere + ": no such database (the control plane creates it"},
      {{"agents", "--db", dir.Path()}, 2, "", dir.Path() + ": cannot open the database"},
      {{"samples", "--object", "4294967296"}, kUsage, "", "--object: '4294967296' is larger than 4294967295"},
      {{"samples", "--limit", "-1"}, kUsage, "", "--limit: '-1' is not an unsigned decimal number"},
      {{"follow", "--interval", "soon"}, kUsage, "", "--interval: 'soon' is not a number of seconds from 0 to 3600"},
      {{"enable", "[::1]7300", "7"}, kUsage, "", "ADDRESS: "},
      {{}, kUsage, "", "A subcommand is required"},
  };
  for (const Case& c : cases) {
    const Outcome outcome = Ctl(c.args);
    if (c.status == kUsage) {
      EXPECT_GT(outcome.status, 2) << outcome.err;
    } else {
      EXPECT_EQ(outcome.status, c.status) << outcome.err;
    }
    EXPECT_EQ(outcome.out, c.out);
    EXPECT_EQ(outcome.err.substr(0, c.err.size()), c.err);
  }
  unsetenv("OVITA2_DB");
}

TEST_F(ClientTest, FollowPrintsEachNewRowOnceAndNothingStoredBeforeItStarted) {
  Store({Load("web-01", 1), Load("web-01", 2), Load("web-01", 3)});
  FlushHook hook([this](int flush) {
    if (flush == 1) Store({Load("web-01", 4), Load("web-02", 5), Load("web-01", 6)});
    if (flush == 2) Store({Load("web-01", 7)});
  });
  std::ostream out(&hook);
  std::ostringstream err;
  const std::vector<std::string> follow = {"follow", "--db", db, "--interval", "0", "--polls", "4", "--json"};
  std::vector<std::string> args = follow;
  args.insert(args.end(), {"--agent", "web-01", "--last", "2"});
  EXPECT_EQ(Ctl(args, out, err), 0) << err.str();
  std::vector<int64_t> ids;
  std::istringstream lines(hook.str());
  for (std::string line; std::getline(lines, line);) ids.push_back(std::stoll(line.substr(line.find(':') + 1)));
  EXPECT_EQ(ids, (std::vector<int64_t>{2, 3, 4, 6, 7}));

  // With --last 0, rows stored before the start stay unseen even past the filter.
  FlushHook later([this](int flush) {
    if (flush == 1) Store({Load("web-01", 9)});
  });
  std::ostream laterOut(&later);
  args = follow;
  args.insert(args.end(), {"--agent", "web-02", "--last", "0"});
  EXPECT_EQ(Ctl(args, laterOut, err), 0);
  EXPECT_EQ(later.str(), "");
}

TEST_F(ClientTest, FollowEndsCleanlyOnInterruptAndWaitsForADatabaseNotYetCreated) {
  FlushHook interrupt([](int) { raise(SIGINT); });
  std::ostream out(&interrupt);
  std::ostringstream err;
  EXPECT_EQ(Ctl({"follow", "--db", db, "--interval", "0"}, out, err), 0) << err.str();
  struct sigaction now {};
  sigaction(SIGINT, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_DFL) << "the interrupt handler is the follower's only while it runs";

  const std::string later = dir.Path() + "/later.db";
  SampleStore created;
  FlushHook waiting([&](int flush) {
    if (flush == 1) {
      ASSERT_TRUE(created.Open(later, &error)) << error;
      ASSERT_TRUE(created.AddRealTimeLine("web-01", kNoon, "started\n", &error)) << error;
    }
  });
  std::ostringstream lines;
  std::ostream waitingErr(&waiting);
  EXPECT_EQ(Ctl({"lines", "--db", later, "--follow", "--interval", "0", "--polls", "3"}, lines, waitingErr), 0);
  EXPECT_EQ(waiting.str(), later + ": no such database (the control plane creates it when it starts); waiting for it\n");
  EXPECT_EQ(lines.str(), "TIME                 AGENT   LINE\n2023-11-15 12:00:00  web-01  started\n");
}

// Plays an agent for one connection: reads one request and answers it with
// what `answer` makes of it, or closes when that is nothing.
class OneShotAgent {
 public:
  using Answer = std::function<std::optional<zelvar::ZMessage>(const zelvar::ZMessage&)>;
  explicit OneShotAgent(Answer answer) : m_iListener(ovita2::testing::ListenLoopback(&m_iPort)) {
    m_thread = std::thread([this, answer] {
      const int fd = accept(m_iListener, nullptr, nullptr);
      std::string input;
      pollfd readable{fd, POLLIN, 0};
      while (poll(&readable, 1, 5000) > 0 && ovita2::testing::ReadAvailable(fd, &input) &&
             (input.size() < zelvar::kFramePrefixSize ||
              input.size() < zelvar::kFramePrefixSize +
                                 zelvar::FrameBodyLength(reinterpret_cast<const unsigned char*>(input.data())))) {
      }
      if (m_request.ParseFromString(input.substr(zelvar::kFramePrefixSize))) {
        if (auto reply = answer(m_request)) ovita2::testing::SendAll(fd, zelvar::EncodeFrame(*reply));
      }
      close(fd);
    });
  }
  ~OneShotAgent() {
    Request();
    close(m_iListener);
  }
  std::string Address() const { return "127.0.0.1:" + std::to_string(m_iPort); }
  // What the client sent, once the conversation is over.
  const zelvar::ZMessage& Request() {
    if (m_thread.joinable()) m_thread.join();
    return m_request;
  }

 private:
  int m_iPort = 0;
  int m_iListener;
  zelvar::ZMessage m_request;
  std::thread m_thread;
};

OneShotAgent::Answer AnswerWith(int type, int32_t code, const std::string& message) {
  return [=](const zelvar::ZMessage& request) -> std::optional<zelvar::ZMessage> {
    zelvar::ZMessage answer;
    zelvar::MakeResponse(request, type, &answer);
    auto* rc = answer.mutable_body()->MutableExtension(ov::enable_real_time_monitor_response)->mutable_rc();
    rc->set_code(code);
    rc->set_msg(message);
    return answer;
  };
}

TEST(ClientSwitch, EnableAndDisableSayWhatTheAgentAnsweredInTheirStatus) {
  struct Case {
    std::string command, item;
    OneShotAgent::Answer answer;
    int status;
    std::string out, err;  // $ stands for the agent's address
  };
  const std::vector<Case> cases = {
      {"enable", "7", AnswerWith(ov::ENABLE_REAL_TIME_MONITOR_RESPONSE, 0, ""), 0, "item 7 enabled\n", ""},
      {"disable", "4294967295", AnswerWith(ov::ENABLE_REAL_TIME_MONITOR_RESPONSE, -64190, "not monitored"), 1, "",
       "item 4294967295: the agent refused: -64190 not monitored\n"},
      {"enable", "7", [](const zelvar::ZMessage&) { return std::nullopt; }, 2, "",
       "$ closed the connection without answering\n"},
      {"enable", "7", AnswerWith(ov::GET_AGGREGATION_RESPONSE, 0, ""), 2, "", "$ answered with a message of type 66001"},
  };
  for (const Case& c : cases) {
    OneShotAgent agent(c.answer);
    const Outcome outcome = Ctl({c.command, agent.Address(), c.item});
    EXPECT_EQ(outcome.status, c.status) << outcome.err;
    EXPECT_EQ(outcome.out, c.out);
    std::string err = c.err;
    if (!err.empty() && err[0] == '$') err.replace(0, 1, agent.Address());
    EXPECT_EQ(outcome.err.substr(0, err.size()), err);
    const zelvar::ZMessage& asked = agent.Request();
    EXPECT_EQ(asked.head().message_type(), unsigned{ov::ENABLE_REAL_TIME_MONITOR_REQUEST});
    EXPECT_EQ(asked.head().kind(), zelvar::kKindRequest);
    const auto& body = asked.body().GetExtension(ov::enable_real_time_monitor_request);
    EXPECT_EQ(std::to_string(body.item_id()), c.item);
    EXPECT_EQ(body.operation(), c.command == "enable" ? 0u : 1u);
  }
  const std::string nobody = "127.0.0.1:" + std::to_string(ovita2::testing::FreeLoopbackPort());
  const Outcome refused = Ctl({"enable", nobody, "7", "--timeout", "2"});
  EXPECT_EQ(refused.status, 2);
  EXPECT_EQ(refused.err.rfind(nobody + ": cannot connect", 0), 0u) << refused.err;
}

}  // namespace
}  // namespace controlplane
