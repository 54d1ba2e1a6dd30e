// ovita2ctl's commands (see client_app.h).
#include "client/client_app.h"

#include <poll.h>
#include <signal.h>
#include <time.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "client/agent_link.h"
#include "client/row_format.h"
#include "store/sample_store.h"

namespace controlplane {
namespace {

constexpr int kExitRefused = 1;
constexpr int kExitRuntimeError = 2;

// A follower reads new rows in batches of this many until a batch comes back
// short, so a burst after a pause is shown whole without one huge query.
constexpr size_t kFollowBatch = 1000;

volatile sig_atomic_t g_iStopSignal = 0;

void RememberStopSignal(int signalNumber) { g_iStopSignal = signalNumber; }

// While a follower runs, SIGINT and SIGTERM end it with status 0 instead of
// killing the process. They stay blocked except while it sleeps, where ppoll
// unblocks them atomically: a signal that comes while rows are printed is
// acted on at the next sleep instead of being missed just before it.
class StopSignals {
 public:
  StopSignals() {
    g_iStopSignal = 0;
    struct sigaction action {};
    action.sa_handler = RememberStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, &m_sPreviousInt);
    sigaction(SIGTERM, &action, &m_sPreviousTerm);
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, &m_sPreviousMask);
    m_sSleepMask = m_sPreviousMask;
    sigdelset(&m_sSleepMask, SIGINT);
    sigdelset(&m_sSleepMask, SIGTERM);
  }
  ~StopSignals() {
    // Unblocked while the handler is still ours: a pending signal only sets the flag.
    pthread_sigmask(SIG_SETMASK, &m_sPreviousMask, nullptr);
    sigaction(SIGINT, &m_sPreviousInt, nullptr);
    sigaction(SIGTERM, &m_sPreviousTerm, nullptr);
  }
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // False when a stop signal came before `seconds` passed.
  bool Sleep(double seconds) const {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    while (g_iStopSignal == 0) {
      auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now());
      if (left.count() < 0) left = std::chrono::nanoseconds(0);
      timespec wait{static_cast<time_t>(left.count() / 1000000000), static_cast<long>(left.count() % 1000000000)};
      if (ppoll(nullptr, 0, &wait, &m_sSleepMask) == 0) return true;
      if (errno != EINTR) return true;
    }
    return false;
  }

 private:
  struct sigaction m_sPreviousInt {};
  struct sigaction m_sPreviousTerm {};
  sigset_t m_sPreviousMask;
  sigset_t m_sSleepMask;
};

// What a reading command was given.
struct ReadOptions {
  std::string m_strDb;
  bool m_bJson = false;
  std::string m_strAgent;
  uint32_t m_uObject = 0;
  CLI::Option* m_pObject = nullptr;  // tells whether --object was given
  std::string m_strName;
  size_t m_uLimit = 20;
  size_t m_uLast = 10;
  bool m_bFollow = false;
  double m_dInterval = 1.0;
};

struct SwitchOptions {
  std::string m_strAddress;
  uint32_t m_uItem = 0;
  double m_dTimeout = 5.0;
};

SampleQuery QueryFor(const ReadOptions& options, size_t limit) {
  SampleQuery query;
  query.agent = options.m_strAgent;
  if (options.m_pObject != nullptr && options.m_pObject->count() > 0) query.object_id = options.m_uObject;
  query.name = options.m_strName;
  query.limit = limit;
  return query;
}

// Accepts plain decimal digits up to `largest`, and rewrites them without
// leading zeros: the parser would read "010" as octal 8.
CLI::Validator UnsignedDecimal(uint64_t largest) {
  return CLI::Validator(
      [largest](std::string& text) -> std::string {
        if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
          return "'" + text + "' is not an unsigned decimal number";
        }
        uint64_t value = 0;
        for (char digit : text) {
          const auto next = static_cast<uint64_t>(digit - '0');
          if (value > (largest - next) / 10) return "'" + text + "' is larger than " + std::to_string(largest);
          value = value * 10 + next;
        }
        text = std::to_string(value);
        return std::string();
      },
      "");
}

CLI::Validator Seconds(double smallest, double largest) {
  return CLI::Validator(
      [smallest, largest](std::string& text) -> std::string {
        char* end = nullptr;
        const double value = std::strtod(text.c_str(), &end);
        if (text.empty() || *end != '\0' || !std::isfinite(value) || value < smallest || value > largest) {
          std::ostringstream message;
          message << "'" << text << "' is not a number of seconds from " << smallest << " to " << largest;
          return message.str();
        }
        return std::string();
      },
      "");
}

const CLI::Validator kAgentAddress(
    [](std::string& text) -> std::string {
      std::string error;
      return ParseAgentAddress(text, &error) ? std::string() : error;
    },
    "");

// Prints rows of one kind as a table or as JSON lines.
template <typename Row>
class RowPrinter {
 public:
  RowPrinter(bool json, const std::vector<Column>& columns) : m_bJson(json), m_sTable(columns) {}

  void Print(const std::vector<Row>& rows, std::ostream& out) {
    if (m_bJson) {
      for (const Row& row : rows) out << JsonLine(row) << '\n';
      return;
    }
    std::vector<std::vector<std::string>> cells;
    cells.reserve(rows.size());
    for (const Row& row : rows) cells.push_back(Cells(row));
    m_sTable.Print(cells, out);
  }

 private:
  bool m_bJson;
  TableWriter m_sTable;
};

// Where a follower's rows come from: samples or real-time lines.
template <typename Row>
struct Feed {
  std::vector<Row> (SampleStore::*m_pRecent)(const SampleQuery&, std::string*) const;
  std::vector<Row> (SampleStore::*m_pAfter)(const SampleQuery&, std::string*) const;
  int64_t (SampleStore::*m_pLastId)(std::string*) const;
  const std::vector<Column>& m_vecColumns;
};

const Feed<SampleRow> kSampleFeed{&SampleStore::RecentSamples, &SampleStore::SamplesAfter,
                                  &SampleStore::LastSampleId, kSampleColumns};
const Feed<RealTimeLineRow> kLineFeed{&SampleStore::RecentRealTimeLines, &SampleStore::RealTimeLinesAfter,
                                      &SampleStore::LastRealTimeLineId, kLineColumns};

// Prints the last rows, then the new ones poll by poll until a stop signal.
template <typename Row>
class Follower {
 public:
  Follower(const Feed<Row>& feed, const ReadOptions& options, std::ostream& out, std::ostream& err)
      : m_sFeed(feed),
        m_sOptions(options),
        m_osOut(out),
        m_osErr(err),
        m_sPrinter(options.m_bJson, feed.m_vecColumns) {}

  int Run(size_t backlog) {
    if (!OpenWhenCreated()) return m_bFailed ? kExitRuntimeError : 0;
    if (!PrintBacklog(backlog)) return kExitRuntimeError;
    while (NextPoll()) {
      if (!PrintNewRows()) return kExitRuntimeError;
    }
    return 0;
  }

 private:
  // Sleeps one interval; false when stopped.
  bool NextPoll() { return m_sSignals.Sleep(m_sOptions.m_dInterval); }

  // The control plane may be starting: wait for its database, and say so once.
  bool OpenWhenCreated() {
    bool saidWaiting = false;
    for (;;) {
      std::string error;
      if (m_sStore.OpenReadOnly(m_sOptions.m_strDb, &error)) return true;
      if (!m_sStore.NotCreatedYet()) return Fail(error);
      if (!saidWaiting) {
        m_osErr << error << "; waiting for it" << std::endl;
        saidWaiting = true;
      }
      if (!NextPoll()) return false;
    }
  }

  bool PrintBacklog(size_t backlog) {
    std::string error;
    // Rows stored from here on are new, even those the backlog's filter skips.
    const int64_t lastStored = (m_sStore.*m_sFeed.m_pLastId)(&error);
    if (!error.empty()) return Fail(error);
    std::vector<Row> rows = (m_sStore.*m_sFeed.m_pRecent)(QueryFor(m_sOptions, backlog), &error);
    if (!error.empty()) return Fail(error);
    m_sPrinter.Print(rows, m_osOut);
    m_osOut.flush();
    m_iLastId = std::max(lastStored, rows.empty() ? int64_t{0} : rows.back().id);
    return true;
  }

  bool PrintNewRows() {
    bool printed = false;
    for (;;) {
      SampleQuery query = QueryFor(m_sOptions, kFollowBatch);
      query.after_id = m_iLastId;
      std::string error;
      std::vector<Row> rows = (m_sStore.*m_sFeed.m_pAfter)(query, &error);
      if (!error.empty()) return Fail(error);
      if (rows.empty()) break;
      m_sPrinter.Print(rows, m_osOut);
      printed = true;
      m_iLastId = rows.back().id;
      if (rows.size() < kFollowBatch) break;
    }
    if (printed) m_osOut.flush();
    return true;
  }

  bool Fail(const std::string& error) {
    m_osErr << error << '\n';
    m_bFailed = true;
    return false;
  }

  const Feed<Row>& m_sFeed;
  const ReadOptions& m_sOptions;
  std::ostream& m_osOut;
  std::ostream& m_osErr;
  StopSignals m_sSignals;
  SampleStore m_sStore;
  RowPrinter<Row> m_sPrinter;
  int64_t m_iLastId = 0;
  bool m_bFailed = false;
};

bool OpenForReading(SampleStore* store, const std::string& path, std::ostream& err) {
  std::string error;
  if (store->OpenReadOnly(path, &error)) return true;
  err << error << '\n';
  return false;
}

int ListAgents(const ReadOptions& options, std::ostream& out, std::ostream& err) {
  SampleStore store;
  if (!OpenForReading(&store, options.m_strDb, err)) return kExitRuntimeError;
  std::string error;
  std::vector<AgentRow> agents = store.Agents(&error);
  if (!error.empty()) {
    err << error << '\n';
    return kExitRuntimeError;
  }
  RowPrinter<AgentRow>(options.m_bJson, kAgentColumns).Print(agents, out);
  return 0;
}

template <typename Row>
int ListRecent(const Feed<Row>& feed, const ReadOptions& options, std::ostream& out, std::ostream& err) {
  SampleStore store;
  if (!OpenForReading(&store, options.m_strDb, err)) return kExitRuntimeError;
  std::string error;
  std::vector<Row> rows = (store.*feed.m_pRecent)(QueryFor(options, options.m_uLimit), &error);
  if (!error.empty()) {
    err << error << '\n';
    return kExitRuntimeError;
  }
  RowPrinter<Row>(options.m_bJson, feed.m_vecColumns).Print(rows, out);
  return 0;
}

int SwitchItem(const SwitchOptions& options, bool enable, std::ostream& out, std::ostream& err) {
  const auto timeout = std::chrono::milliseconds(static_cast<int64_t>(std::ceil(options.m_dTimeout * 1000.0)));
  SwitchOutcome outcome = SwitchRealTimeMonitor(options.m_strAddress, options.m_uItem, enable, timeout);
  const std::string item = "item " + std::to_string(options.m_uItem);
  switch (outcome.m_eKind) {
    case SwitchOutcome::Kind::kDone:
      out << item << (enable ? " enabled" : " disabled") << '\n';
      return 0;
    case SwitchOutcome::Kind::kRefused:
      err << item << ": the agent refused: " << outcome.m_iCode << ' ' << outcome.m_strMessage << '\n';
      return kExitRefused;
    default:
      err << outcome.m_strMessage << '\n';
      return kExitRuntimeError;
  }
}

void AddDatabase(CLI::App* command, ReadOptions* options) {
  command->add_option("--db", options->m_strDb, "the control plane's database file")
      ->envname("OVITA2_DB")
      ->required();
}

void AddJson(CLI::App* command, ReadOptions* options) {
  command->add_flag("--json", options->m_bJson, "one JSON object per line instead of a table");
}

void AddSampleFilters(CLI::App* command, ReadOptions* options) {
  command->add_option("--agent", options->m_strAgent, "only samples from this agent");
  options->m_pObject = command->add_option("--object", options->m_uObject, "only samples of this object")
                           ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  command->add_option("--name", options->m_strName, "only samples of this name (the job's stat_key)");
}

void AddPolling(CLI::App* command, ReadOptions* options) {
  command->add_option("--interval", options->m_dInterval, "seconds between two looks for new rows (default 1)")
      ->check(Seconds(0, 3600));
}

const char* const kSampleHelp =
    "Columns: TIME (when the control plane received it, local time), AGENT, OBJECT ('-' when the agent could\n"
    "not tell), NAME, VALUE (a number with one decimal, or a text sample on one line with newlines and tabs\n"
    "shown as \\n and \\t). JSON lines: id, received_at, agent, kind (numeric or text), object_id (null when\n"
    "unknown), name, then stat_item, tenths, value (numeric) or job_id, text, sample_time (text).";

CLI::App* AddAgentsCommand(CLI::App& app, ReadOptions* options) {
  CLI::App* command = app.add_subcommand("agents", "list every agent the control plane has heard from");
  command->footer(
      "Columns: NAME, LAST HEARTBEAT (local time, or 'never'), VERSION, JOBS (job count from the last\n"
      "heartbeat), LAST SEEN (last request of any kind), ADDRESS (IP it last spoke from), NODE PATH.\n"
      "JSON lines: name, last_heartbeat (null when never), version, job_count, last_seen, first_seen,\n"
      "address, node_path; times in seconds since the epoch.");
  AddDatabase(command, options);
  AddJson(command, options);
  return command;
}

CLI::App* AddSamplesCommand(CLI::App& app, ReadOptions* options) {
  CLI::App* command = app.add_subcommand("samples", "show the most recent samples, oldest first");
  command->footer(kSampleHelp);
  AddDatabase(command, options);
  AddSampleFilters(command, options);
  command->add_option("--limit", options->m_uLimit, "show at most this many (default 20)")
      ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  AddJson(command, options);
  return command;
}

CLI::App* AddFollowCommand(CLI::App& app, ReadOptions* options) {
  CLI::App* command = app.add_subcommand(
      "follow", "show the last samples, then new ones as they arrive, until interrupted (Ctrl-C)");
  command->footer(std::string("Waits for the database when it does not exist yet.\n") + kSampleHelp);
  AddDatabase(command, options);
  AddSampleFilters(command, options);
  command->add_option("--last", options->m_uLast, "show this many samples first (default 10)")
      ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  AddPolling(command, options);
  AddJson(command, options);
  return command;
}

CLI::App* AddLinesCommand(CLI::App& app, ReadOptions* options) {
  CLI::App* command = app.add_subcommand("lines", "show the real-time lines agents sent, oldest first");
  command->footer(
      "Columns: TIME (received, local time), AGENT, LINE (newlines and tabs shown as \\n and \\t).\n"
      "JSON lines: id, received_at, agent, line.");
  AddDatabase(command, options);
  command->add_option("--agent", options->m_strAgent, "only lines from this agent");
  command->add_option("--limit", options->m_uLimit, "show at most this many (default 20)")
      ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  command->add_flag("--follow", options->m_bFollow, "then show new lines as they arrive, until interrupted");
  AddPolling(command, options);
  AddJson(command, options);
  return command;
}

CLI::App* AddSwitchCommand(CLI::App& app, const std::string& name, const std::string& description,
                           SwitchOptions* options) {
  CLI::App* command = app.add_subcommand(name, description);
  command->footer(
      "Prints 'item ITEM " + name + "d' when the agent agrees. Exit status 1 when the agent refuses (its code and\n"
      "message on stderr), 2 when it cannot be reached or does not answer properly.");
  command->add_option("ADDRESS", options->m_strAddress, "the agent's listening address, ip:port or [ipv6]:port")
      ->required()
      ->check(kAgentAddress);
  command->add_option("ITEM", options->m_uItem, "the item (an unsigned 32-bit number)")
      ->required()
      ->transform(UnsignedDecimal(std::numeric_limits<uint32_t>::max()));
  command->add_option("--timeout", options->m_dTimeout, "seconds to wait for the answer (default 5)")
      ->check(Seconds(0.001, 3600));
  return command;
}

int Run(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  CLI::App app("Reads what the ovita2 control plane stored, and switches an agent's real-time monitoring.",
               "ovita2ctl");
  app.set_version_flag("-V,--version", std::string("ovita2ctl ") + OVITA2_VERSION);
  app.require_subcommand(1);
  app.footer(
      "--db may also come from the OVITA2_DB environment variable. Exit status: 0 success, 1 the agent\n"
      "refused, 2 the database or the network failed.");
  // One set of options per command: each binds its own, and which of them
  // were given (--object, say) is asked of that command's option.
  ReadOptions agentsOptions, samplesOptions, followOptions, linesOptions;
  SwitchOptions enableOptions, disableOptions;
  CLI::App* agents = AddAgentsCommand(app, &agentsOptions);
  CLI::App* samples = AddSamplesCommand(app, &samplesOptions);
  CLI::App* follow = AddFollowCommand(app, &followOptions);
  CLI::App* lines = AddLinesCommand(app, &linesOptions);
  CLI::App* enable =
      AddSwitchCommand(app, "enable", "ask an agent to send an item's output line by line", &enableOptions);
  CLI::App* disable =
      AddSwitchCommand(app, "disable", "ask an agent to stop sending an item's output", &disableOptions);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e, out, err);
  }

  if (agents->parsed()) return ListAgents(agentsOptions, out, err);
  if (samples->parsed()) return ListRecent(kSampleFeed, samplesOptions, out, err);
  if (follow->parsed()) return Follower<SampleRow>(kSampleFeed, followOptions, out, err).Run(followOptions.m_uLast);
  if (lines->parsed() && linesOptions.m_bFollow) {
    return Follower<RealTimeLineRow>(kLineFeed, linesOptions, out, err).Run(linesOptions.m_uLimit);
  }
  if (lines->parsed()) return ListRecent(kLineFeed, linesOptions, out, err);
  if (enable->parsed()) return SwitchItem(enableOptions, true, out, err);
  if (disable->parsed()) return SwitchItem(disableOptions, false, out, err);
  return 0;
}

}  // namespace

int RunClient(int argc, const char* const* argv, std::ostream& out, std::ostream& err) {
  try {
    return Run(argc, argv, out, err);
  } catch (const std::exception& e) {
    err << "ovita2ctl: " << e.what() << '\n';
  } catch (...) {
    err << "ovita2ctl: unexpected failure\n";
  }
  return kExitRuntimeError;
}

}  // namespace controlplane
