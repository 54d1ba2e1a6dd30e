// WebRoutes: what the control plane's HTTP address answers, free of the HTTP
// server so that it can be driven directly. Everything is read-only:
//
//   /                    the page (index.html), /app.js, /style.css from the web root
//   /chart.js            the charting library, from where the system installed it
//   /metrics             Prometheus text exposition
//   /api/agents          agents with heartbeat age, version, job count, address
//   /api/series?agent=   an agent's series with their latest value
//   /api/points?agent=&object=&stat_key=&stat_item=[&from=&to=]   one series over a time range
//   /api/texts[?agent=&after=&limit=]   text samples, the latest or those after an id
//   /api/lines[?agent=&after=&limit=]   real-time lines, likewise
#ifndef OVITA2_CONTROLPLANE_WEB_ROUTES_H
#define OVITA2_CONTROLPLANE_WEB_ROUTES_H

#include <cstdint>
#include <map>
#include <string>

#include "services/control_plane_services.h"
#include "store/sample_store.h"

namespace controlplane {

struct WebReply {
  int status = 200;
  std::string content_type;
  std::string body;
};

// Where the page's files are read from, at each request (they are small).
struct WebFiles {
  std::string web_root;  // holds index.html, app.js, style.css
  std::string chart_js;  // the charting library's single-file build
};

using QueryParams = std::map<std::string, std::string>;

class WebRoutes {
 public:
  // `store` and `services` outlive the routes.
  WebRoutes(const SampleStore* store, const ControlPlaneServices* services, WebFiles files)
      : m_pStore(store), m_pServices(services), m_sFiles(std::move(files)) {}

  // The answer to a GET of `path` with its decoded query parameters at `now`.
  WebReply Answer(const std::string& path, const QueryParams& params, int64_t now) const;

 private:
  WebReply Metrics(int64_t now) const;
  WebReply Agents(int64_t now) const;
  WebReply Series(const QueryParams& params) const;
  WebReply Points(const QueryParams& params, int64_t now) const;
  WebReply Texts(const QueryParams& params) const;
  WebReply Lines(const QueryParams& params) const;

  const SampleStore* m_pStore;
  const ControlPlaneServices* m_pServices;
  WebFiles m_sFiles;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_WEB_ROUTES_H
