// ovita2ctl run in-process: how rows are shown, which rows, following new
// ones, and the conversation with an agent played by a loopback server.
#include "client/client_app.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "store_test_support.h"
#include "store/sample_store.h"
#include "zelvar/message_util.h"
#include "zelvar/ovita2.pb.h"

namespace controlplane {
namespace {

constexpr int64_t kNoon = 1700049600;  // 2023-11-15 12:00:00 UTC

struct Result {
  int m_iStatus;
  std::string m_strOut;
  std::string m_strErr;
};

int RunWith(std::vector<std::string> args, std::ostream& out, std::ostream& err) {
  args.insert(args.begin(), "ovita2ctl");
  std::vector<const char*> argv;
  for (const std::string& arg : args) argv.push_back(arg.c_str());
  return RunClient(static_cast<int>(argv.size()), argv.data(), out, err);
}

Result RunCtl(const std::vector<std::string>& args) {
  std::ostringstream out;
  std::ostringstream err;
  int status = RunWith(args, out, err);
  return Result{status, out.str(), err.str()};
}

// An output stream that lets the test act each time the client flushes, which
// the follower does after every batch: rows stored there arrive "between polls".
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

SampleRow Numeric(const std::string& agent, uint32_t objectId, const std::string& name, int64_t tenths) {
  return NumericRow(agent, objectId, name, tenths, kNoon);
}

SampleRow Text(const std::string& agent, const std::string& name, const std::string& text) {
  return TextRow(agent, std::nullopt, name, text, kNoon);
}

std::vector<nlohmann::json> JsonLines(const std::string& text) {
  std::vector<nlohmann::json> objects;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) objects.push_back(nlohmann::json::parse(line));
  return objects;
}

std::vector<int64_t> Ids(const std::string& jsonLines) {
  std::vector<int64_t> ids;
  for (const nlohmann::json& object : JsonLines(jsonLines)) ids.push_back(object.at("id").get<int64_t>());
  return ids;
}

class Client : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
    unsetenv("OVITA2_DB");
    std::string error;
    ASSERT_TRUE(m_sStore.Open(m_strDb, &error)) << error;
  }
  void Store(const std::vector<SampleRow>& rows) {
    std::string error;
    ASSERT_TRUE(m_sStore.AddSamples(rows, &error)) << error;
  }

  ScratchDir m_dir;
  const std::string m_strDb = m_dir.File("cp.db");
  SampleStore m_sStore;
};

TEST_F(Client, SampleTableShowsTenthsAsDecimalsAndEachTextOnOneLine) {
  Store({Numeric("web-01", 1, "load", 123), Numeric("web-01", 1, "load", -5), Numeric("db-7", 22, "temp", 0),
         Text("web-01", "ps", "a\tb\nc\n"), Text("web-01", "motd", "two\n\n")});
  Result result = RunCtl({"samples", "--db", m_strDb});
  EXPECT_EQ(result.m_iStatus, 0) << result.m_strErr;
  EXPECT_EQ(result.m_strOut,
            "TIME                 AGENT   OBJECT  NAME  VALUE\n"
            "2023-11-15 12:00:00  web-01  1       load  12.3\n"
            "2023-11-15 12:00:00  web-01  1       load  -0.5\n"
            "2023-11-15 12:00:00  db-7    22      temp  0.0\n"
            "2023-11-15 12:00:00  web-01  -       ps    a\\tb\\nc\n"
            "2023-11-15 12:00:00  web-01  -       motd  two\\n\n");
}

TEST_F(Client, SampleJsonLinesCarryTheKindTenthsAndTheExactText) {
  Store({Numeric("web-01", 1, "load", 123), Text("web-01", "ps", "a\tb\n"), Text("web-01", "raw", "\xff\xfe\n")});
  Result result = RunCtl({"samples", "--db", m_strDb, "--json"});
  ASSERT_EQ(result.m_iStatus, 0) << result.m_strErr;
  std::vector<nlohmann::json> rows = JsonLines(result.m_strOut);
  ASSERT_EQ(rows.size(), 3u) << "output that is not UTF-8 still gets its line";
  EXPECT_EQ(result.m_strOut.substr(0, result.m_strOut.find('\n')),
            R"({"id":1,"received_at":1700049600,"agent":"web-01","kind":"numeric","object_id":1,"name":"load",)"
            R"("stat_item":1001,"tenths":123,"value":12.3})");
  EXPECT_EQ(rows[1]["kind"], "text");
  EXPECT_TRUE(rows[1]["object_id"].is_null());
  EXPECT_EQ(rows[1]["text"], "a\tb\n");
  EXPECT_EQ(rows[1]["job_id"], 3);
  EXPECT_EQ(rows[1]["sample_time"], kNoon - 1);
  EXPECT_FALSE(rows[1].contains("tenths"));
}

TEST_F(Client, SampleFiltersAndLimitNarrowTheRowsAndTheDatabaseMayComeFromTheEnvironment) {
  Store({Numeric("web-01", 1, "load", 1), Numeric("web-01", 2, "load", 2), Numeric("web-02", 1, "load", 3),
         Numeric("web-01", 1, "disk", 4), Numeric("web-01", 1, "load", 5), Numeric("web-01", 1, "load", 6)});
  EXPECT_EQ(Ids(RunCtl({"samples", "--db", m_strDb, "--json", "--agent", "web-01", "--object", "1", "--name", "load"})
                    .m_strOut),
            (std::vector<int64_t>{1, 5, 6}));
  EXPECT_EQ(Ids(RunCtl({"samples", "--db", m_strDb, "--json", "--object", "01", "--limit", "2"}).m_strOut),
            (std::vector<int64_t>{5, 6}))
      << "a leading zero is still decimal";
  setenv("OVITA2_DB", m_strDb.c_str(), 1);
  EXPECT_EQ(Ids(RunCtl({"samples", "--json", "--name", "disk"}).m_strOut), (std::vector<int64_t>{4}));
  unsetenv("OVITA2_DB");

  Result missing = RunCtl({"samples", "--db", m_dir.File("nowhere.db")});
  EXPECT_EQ(missing.m_iStatus, 2);
  EXPECT_EQ(missing.m_strOut, "");
  EXPECT_EQ(missing.m_strErr.rfind(m_dir.File("nowhere.db") + ": no such database", 0), 0u) << missing.m_strErr;
  Result usage = RunCtl({"samples", "--db", m_strDb, "--object", "4294967296"});
  EXPECT_NE(usage.m_iStatus, 0);
  EXPECT_GT(usage.m_iStatus, 2) << "a usage mistake has the parser's own status";
  EXPECT_NE(usage.m_strErr.find("4294967296"), std::string::npos) << usage.m_strErr;
}

TEST_F(Client, AgentsShowNeverForAnAgentThatSentNoHeartbeat) {
  std::string error;
  ASSERT_TRUE(m_sStore.TouchAgent("web-02", "", "", kNoon, &error)) << error;
  ASSERT_TRUE(m_sStore.RecordHeartbeat("web-01", "10.0.0.1", kNoon + 61, "2.1.0", 4, &error)) << error;
  Result table = RunCtl({"agents", "--db", m_strDb});
  EXPECT_EQ(table.m_iStatus, 0) << table.m_strErr;
  EXPECT_EQ(table.m_strOut,
            "NAME    LAST HEARTBEAT       VERSION  JOBS  LAST SEEN            ADDRESS   NODE PATH\n"
            "web-01  2023-11-15 12:01:01  2.1.0    4     2023-11-15 12:01:01  10.0.0.1  -\n"
            "web-02  never                -        0     2023-11-15 12:00:00  -         -\n");
  std::vector<nlohmann::json> json = JsonLines(RunCtl({"agents", "--db", m_strDb, "--json"}).m_strOut);
  ASSERT_EQ(json.size(), 2u);
  EXPECT_EQ(json[0]["last_heartbeat"], kNoon + 61);
  EXPECT_TRUE(json[1]["last_heartbeat"].is_null());
}

TEST_F(Client, FollowPrintsRowsAddedBetweenPollsExactlyOnce) {
  Store({Numeric("web-01", 1, "load", 1), Numeric("web-01", 1, "load", 2), Numeric("web-01", 1, "load", 3)});
  FlushHook hook([this](int flush) {
    if (flush == 1) Store({Numeric("web-01", 1, "load", 4), Numeric("web-02", 1, "load", 5),
                           Numeric("web-01", 1, "load", 6)});
    if (flush == 2) Store({Numeric("web-01", 1, "load", 7)});
  });
  std::ostream out(&hook);
  std::ostringstream err;
  int status = RunWith({"follow", "--db", m_strDb, "--agent", "web-01", "--last", "2", "--interval", "0",
                        "--polls", "4", "--json"},
                       out, err);
  EXPECT_EQ(status, 0) << err.str();
  EXPECT_EQ(Ids(hook.str()), (std::vector<int64_t>{2, 3, 4, 6, 7}));
}

TEST_F(Client, FollowFromLastZeroShowsOnlyWhatArrivesAfterItStarts) {
  Store({Numeric("web-02", 1, "load", 1)});
  FlushHook hook([this](int flush) {
    if (flush == 1) Store({Numeric("web-01", 1, "load", 2)});
  });
  std::ostream out(&hook);
  std::ostringstream err;
  EXPECT_EQ(RunWith({"follow", "--db", m_strDb, "--last", "0", "--interval", "0", "--polls", "2", "--json"}, out, err),
            0);
  EXPECT_EQ(Ids(hook.str()), (std::vector<int64_t>{2})) << "--last 0 shows nothing of what was there before";
}

TEST_F(Client, FollowEndsCleanlyOnInterrupt) {
  FlushHook hook([](int) { raise(SIGINT); });
  std::ostream out(&hook);
  std::ostringstream err;
  EXPECT_EQ(RunWith({"follow", "--db", m_strDb, "--interval", "0"}, out, err), 0) << err.str();
  EXPECT_EQ(hook.str(), "") << "the header waits for the first rows, so that it stands right above them";
  struct sigaction now {};
  sigaction(SIGINT, nullptr, &now);
  EXPECT_EQ(now.sa_handler, SIG_DFL) << "the interrupt handler is the follower's only while it runs";
}

TEST_F(Client, FollowWaitsForTheDatabaseAndSaysSoOnce) {
  const std::string later = m_dir.File("later.db");
  SampleStore created;
  FlushHook errHook([&](int flush) {
    if (flush != 1) return;
    std::string error;
    ASSERT_TRUE(created.Open(later, &error)) << error;
    ASSERT_TRUE(created.AddRealTimeLine("web-01", kNoon, "started\n", &error)) << error;
  });
  std::ostringstream out;
  std::ostream err(&errHook);
  int status = RunWith({"lines", "--db", later, "--follow", "--interval", "0", "--polls", "3"}, out, err);
  EXPECT_EQ(status, 0) << errHook.str();
  EXPECT_EQ(errHook.str(),
            later + ": no such database (the control plane creates it when it starts); waiting for it\n");
  EXPECT_EQ(out.str(), "TIME                 AGENT   LINE\n2023-11-15 12:00:00  web-01  started\n");

  Result gone = RunCtl({"follow", "--db", m_dir.File("never.db"), "--interval", "0", "--polls", "2"});
  EXPECT_EQ(gone.m_iStatus, 0);
  EXPECT_EQ(gone.m_strOut, "");
}

TEST_F(Client, LinesAreFilteredByAgentOldestFirst) {
  std::string error;
  for (const char* agent : {"web-01", "web-02", "web-01", "web-01"}) {
    ASSERT_TRUE(m_sStore.AddRealTimeLine(agent, kNoon, std::string("from ") + agent, &error)) << error;
  }
  Result result = RunCtl({"lines", "--db", m_strDb, "--agent", "web-01", "--limit", "2", "--json"});
  EXPECT_EQ(result.m_iStatus, 0) << result.m_strErr;
  EXPECT_EQ(result.m_strOut, "{\"id\":3,\"received_at\":1700049600,\"agent\":\"web-01\",\"line\":\"from web-01\"}\n"
                             "{\"id\":4,\"received_at\":1700049600,\"agent\":\"web-01\",\"line\":\"from web-01\"}\n");
}

// Plays an agent for one connection: reads one request frame and answers it
// with what `answer` makes of it, or closes when that is nothing.
class OneShotAgent {
 public:
  explicit OneShotAgent(std::function<std::optional<zelvar::ZMessage>(const zelvar::ZMessage&)> answer)
      : m_fnAnswer(std::move(answer)) {
    m_iListener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    bind(m_iListener, reinterpret_cast<sockaddr*>(&address), length);
    listen(m_iListener, 1);
    getsockname(m_iListener, reinterpret_cast<sockaddr*>(&address), &length);
    m_strAddress = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    m_thread = std::thread([this] { Serve(); });
  }
  ~OneShotAgent() {
    if (m_thread.joinable()) m_thread.join();
    close(m_iListener);
  }
  const std::string& Address() const { return m_strAddress; }
  // What the client sent, once the conversation is over.
  const zelvar::ZMessage& Request() {
    if (m_thread.joinable()) m_thread.join();
    return m_request;
  }

 private:
  static bool ReadAll(int fd, char* buffer, size_t size) {
    for (size_t got = 0; got < size;) {
      ssize_t read = recv(fd, buffer + got, size - got, 0);
      if (read <= 0) return false;
      got += static_cast<size_t>(read);
    }
    return true;
  }
  void Serve() {
    int fd = accept(m_iListener, nullptr, nullptr);
    unsigned char header[4];
    if (ReadAll(fd, reinterpret_cast<char*>(header), 4)) {
      std::string body((size_t{header[0]} << 24) | (size_t{header[1]} << 16) | (size_t{header[2]} << 8) | header[3],
                       '\0');
      if (ReadAll(fd, body.data(), body.size()) && m_request.ParseFromString(body)) {
        if (std::optional<zelvar::ZMessage> answer = m_fnAnswer(m_request)) {
          std::string bytes = answer->SerializeAsString();
          const auto size = static_cast<uint32_t>(bytes.size());
          bytes.insert(0, std::string{static_cast<char>(size >> 24), static_cast<char>(size >> 16),
                                      static_cast<char>(size >> 8), static_cast<char>(size)});
          send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        }
      }
    }
    close(fd);
  }

  std::function<std::optional<zelvar::ZMessage>(const zelvar::ZMessage&)> m_fnAnswer;
  int m_iListener = -1;
  std::string m_strAddress;
  zelvar::ZMessage m_request;
  std::thread m_thread;
};

std::function<std::optional<zelvar::ZMessage>(const zelvar::ZMessage&)> AnswerWith(int type, int32_t code,
                                                                                   const std::string& message) {
  return [=](const zelvar::ZMessage& request) -> std::optional<zelvar::ZMessage> {
    zelvar::ZMessage answer;
    zelvar::MakeResponse(request, type, &answer);
    zelvar::ResponseCode* rc =
        answer.mutable_body()->MutableExtension(zelvar::ovita2::enable_real_time_monitor_response)->mutable_rc();
    rc->set_code(code);
    rc->set_msg(message);
    return answer;
  };
}

TEST(ClientSwitch, EnableAndDisableSayWhatTheAgentAnswered) {
  OneShotAgent agrees(AnswerWith(zelvar::ovita2::ENABLE_REAL_TIME_MONITOR_RESPONSE, 0, ""));
  Result enabled = RunCtl({"enable", agrees.Address(), "7"});
  EXPECT_EQ(enabled.m_iStatus, 0) << enabled.m_strErr;
  EXPECT_EQ(enabled.m_strOut, "item 7 enabled\n");
  const zelvar::ZMessage& asked = agrees.Request();
  EXPECT_EQ(asked.head().message_type(), 66012u);
  EXPECT_EQ(asked.head().kind(), zelvar::kKindRequest);
  EXPECT_EQ(asked.head().session().size(), 36u);
  const auto& body = asked.body().GetExtension(zelvar::ovita2::enable_real_time_monitor_request);
  EXPECT_EQ(body.item_id(), 7u);
  EXPECT_EQ(body.operation(), 0u);

  OneShotAgent refuses(AnswerWith(zelvar::ovita2::ENABLE_REAL_TIME_MONITOR_RESPONSE, -64190,
                                  "the item has not been set real_time_monitor"));
  Result refused = RunCtl({"disable", refuses.Address(), "4294967295"});
  EXPECT_EQ(refused.m_iStatus, 1);
  EXPECT_EQ(refused.m_strErr,
            "item 4294967295: the agent refused: -64190 the item has not been set real_time_monitor\n");
  EXPECT_EQ(refuses.Request().body().GetExtension(zelvar::ovita2::enable_real_time_monitor_request).operation(), 1u);
}

TEST(ClientSwitch, AnAgentThatCannotBeReachedOrDoesNotAnswerProperlyIsARuntimeError) {
  OneShotAgent silent([](const zelvar::ZMessage&) { return std::nullopt; });
  Result closed = RunCtl({"enable", silent.Address(), "7"});
  EXPECT_EQ(closed.m_iStatus, 2);
  EXPECT_EQ(closed.m_strErr, silent.Address() + " closed the connection without answering\n");

  OneShotAgent confused(AnswerWith(zelvar::ovita2::GET_AGGREGATION_RESPONSE, 0, ""));
  Result wrongType = RunCtl({"enable", confused.Address(), "7"});
  EXPECT_EQ(wrongType.m_iStatus, 2);
  EXPECT_NE(wrongType.m_strErr.find(confused.Address() + " answered with a message of type 66001"), std::string::npos)
      << wrongType.m_strErr;
  EXPECT_EQ(wrongType.m_strOut, "");

  int probe = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  bind(probe, reinterpret_cast<sockaddr*>(&address), length);
  getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length);
  close(probe);  // nothing listens there now
  const std::string nobody = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  Result refused = RunCtl({"enable", nobody, "7", "--timeout", "2"});
  EXPECT_EQ(refused.m_iStatus, 2);
  EXPECT_EQ(refused.m_strErr.rfind(nobody + ": cannot connect", 0), 0u) << refused.m_strErr;

  for (const char* bad : {"127.0.0.1", "localhost:7300", "[::1]7300", "127.0.0.1:70000"}) {
    Result usage = RunCtl({"enable", bad, "7"});
    EXPECT_GT(usage.m_iStatus, 2) << bad;
    EXPECT_NE(usage.m_strErr.find(bad), std::string::npos) << usage.m_strErr;
  }
  EXPECT_GT(RunCtl({"enable", "[::1]:7300", "4294967296"}).m_iStatus, 2);
}

}  // namespace
}  // namespace controlplane
