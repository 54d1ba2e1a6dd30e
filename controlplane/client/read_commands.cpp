#include "client/read_commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <vector>

#include "client/client_app.h"
#include "client/row_format.h"
#include "client/stop_signals.h"
#include "store/sample_store.h"

namespace controlplane {
namespace {

// A follower reads new rows in batches of this many until a batch comes back
// short, so a burst after a pause is shown whole without one huge query.
constexpr size_t kFollowBatch = 1000;

SampleQuery QueryFor(const ReadOptions& options, size_t limit) {
  SampleQuery query;
  query.agent = options.m_strAgent;
  if (options.m_pObject != nullptr && options.m_pObject->count() > 0) query.object_id = options.m_uObject;
  query.name = options.m_strName;
  query.limit = limit;
  return query;
}

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

}  // namespace

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

int ListSamples(const ReadOptions& options, std::ostream& out, std::ostream& err) {
  return ListRecent(kSampleFeed, options, out, err);
}

int ListLines(const ReadOptions& options, std::ostream& out, std::ostream& err) {
  return ListRecent(kLineFeed, options, out, err);
}

int FollowSamples(const ReadOptions& options, size_t backlog, std::ostream& out, std::ostream& err) {
  return Follower<SampleRow>(kSampleFeed, options, out, err).Run(backlog);
}

int FollowLines(const ReadOptions& options, size_t backlog, std::ostream& out, std::ostream& err) {
  return Follower<RealTimeLineRow>(kLineFeed, options, out, err).Run(backlog);
}

}  // namespace controlplane
