// SampleStore: the control plane's SQLite database. The control plane writes
// what agents send (samples, heartbeats, real-time lines) and the command-line
// client reads it, both at once: the database runs in WAL mode with a busy
// timeout, so a reader never blocks the writer for long and never sees half a
// request.
//
// Every write is one transaction: a request is stored whole or not at all.
// Times are whole seconds since the epoch.
#ifndef OVITA2_CONTROLPLANE_SAMPLE_STORE_H
#define OVITA2_CONTROLPLANE_SAMPLE_STORE_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct sqlite3;

namespace controlplane {

// One numeric or text sample as stored.
struct SampleRow {
  int64_t id = 0;               // assigned by the store, increasing
  int64_t received_at = 0;      // when the control plane received it
  std::string agent;            // who sent it (see ControlPlaneServices)
  bool text = false;            // a text sample (61032) rather than a numeric one (61030)
  std::string name;             // the job's stat_key
  std::optional<uint32_t> object_id;  // numeric: always; text: when it could be told
  uint32_t stat_item = 0;       // numeric only
  uint32_t job_id = 0;          // text only
  int64_t value = 0;            // numeric only, in tenths
  std::string text_value;       // text only
  uint32_t sample_time = 0;     // text only: when the agent took it
};

// What is known of one agent.
struct AgentRow {
  std::string name;
  std::string node_path;        // its registry node, when it said
  std::string address;          // the IP it last spoke from
  int64_t first_seen = 0;
  int64_t last_seen = 0;        // last request of any kind
  int64_t last_heartbeat = 0;   // 0: none yet
  std::string version;          // from the last heartbeat
  uint32_t job_count = 0;       // from the last heartbeat
};

struct RealTimeLineRow {
  int64_t id = 0;
  int64_t received_at = 0;
  std::string agent;
  std::string line;
};

// The latest numeric sample of one series (agent, object, name, stat_item).
struct LatestValueRow {
  std::string agent;
  uint32_t object_id = 0;
  std::string name;
  uint32_t stat_item = 0;
  int64_t received_at = 0;
  int64_t value = 0;  // tenths
};

// One point of a series' chart.
struct SeriesPoint {
  int64_t received_at = 0;
  int64_t value = 0;  // tenths
};

// Which series and time range a chart shows; times are inclusive.
struct SeriesQuery {
  std::string agent;
  uint32_t object_id = 0;
  std::string name;
  uint32_t stat_item = 0;
  int64_t from = 0;
  int64_t to = 0;
  size_t limit = 5000;  // at most this many, the newest
};

// Which samples to read. Empty strings and an absent object match anything.
struct SampleQuery {
  std::string agent;
  std::optional<uint32_t> object_id;
  std::string name;
  int64_t after_id = 0;  // only rows with a larger id
  bool text_only = false;  // only text samples
  size_t limit = 20;     // at most this many
};

class SampleStore {
 public:
  SampleStore() = default;
  ~SampleStore();
  SampleStore(const SampleStore&) = delete;
  SampleStore& operator=(const SampleStore&) = delete;

  // Opens the database at `path` for writing, creating the file and its
  // tables when missing. False with a message naming the path.
  bool Open(const std::string& path, std::string* error);
  // Opens an existing database for reading only (the client); a missing file
  // is an error, not an empty database.
  bool OpenReadOnly(const std::string& path, std::string* error);

  // Writes. Each is one transaction; false (nothing written) with a message.
  bool AddSamples(const std::vector<SampleRow>& rows, std::string* error);
  bool AddRealTimeLine(const std::string& agent, int64_t receivedAt, const std::string& line, std::string* error);
  // Records that `name` spoke at `at`: creates the agent, moves last_seen and
  // replaces node_path and address with the non-empty ones given.
  bool TouchAgent(const std::string& name, const std::string& nodePath, const std::string& address, int64_t at,
                  std::string* error);
  // TouchAgent plus the heartbeat's time, version and job count.
  bool RecordHeartbeat(const std::string& name, const std::string& address, int64_t at, const std::string& version,
                       uint32_t jobCount, std::string* error);
  // Deletes samples and real-time lines received before `cutoff` (agents stay).
  bool Prune(int64_t cutoff, std::string* error);

  // Reads. On failure an empty result and a message; on success *error is
  // cleared, so an empty result can be told from a failure.
  std::vector<AgentRow> Agents(std::string* error) const;  // by name
  // The `limit` most recent matching samples, oldest first.
  std::vector<SampleRow> RecentSamples(const SampleQuery& query, std::string* error) const;
  // The first `limit` matching samples after `after_id`, oldest first (follow).
  std::vector<SampleRow> SamplesAfter(const SampleQuery& query, std::string* error) const;
  // The latest numeric sample of every series, of one agent when `agent` is
  // not empty; ordered by agent, object, name, stat_item.
  std::vector<LatestValueRow> LatestValues(const std::string& agent, std::string* error) const;
  // A series' numeric samples in a time range, oldest first.
  std::vector<SeriesPoint> SeriesPoints(const SeriesQuery& query, std::string* error) const;
  // Real-time lines like RecentSamples / SamplesAfter (agent filter only).
  std::vector<RealTimeLineRow> RecentRealTimeLines(const SampleQuery& query, std::string* error) const;
  std::vector<RealTimeLineRow> RealTimeLinesAfter(const SampleQuery& query, std::string* error) const;
  // The largest id stored so far, whatever it matches (0: none); a follower
  // starts after it so that it shows only what arrives from then on.
  int64_t LastSampleId(std::string* error) const;
  int64_t LastRealTimeLineId(std::string* error) const;

  // After a failed OpenReadOnly: true when the database is not there yet (no
  // file, or a file the control plane has not finished creating), as opposed
  // to one that cannot be read.
  bool NotCreatedYet() const { return m_bNotCreatedYet; }

 private:
  bool OpenWith(const std::string& path, int flags, std::string* error);
  void Close();

  sqlite3* m_pDb = nullptr;
  std::string m_strPath;  // named in every message
  bool m_bNotCreatedYet = false;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_SAMPLE_STORE_H
