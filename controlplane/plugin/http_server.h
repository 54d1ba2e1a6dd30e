// HttpServer: libevent's evhttp on the host's event loop, answering GET and
// HEAD through WebRoutes; any other method gets 405. Requests are answered at
// once, in the loop, like the agents' requests.
#ifndef OVITA2_CONTROLPLANE_HTTP_SERVER_H
#define OVITA2_CONTROLPLANE_HTTP_SERVER_H

#include <string>

#include "web/web_routes.h"

struct event_base;
struct evhttp;
struct evhttp_request;

namespace controlplane {

class HttpServer {
 public:
  explicit HttpServer(const WebRoutes* routes) : m_pRoutes(routes) {}
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // Listens on ip:port. False with the reason (a bad or busy address).
  bool Listen(event_base* base, const std::string& ip, int port, std::string* error);

 private:
  static void OnRequest(evhttp_request* request, void* self);
  void Answer(evhttp_request* request) const;

  const WebRoutes* m_pRoutes;
  evhttp* m_pHttp = nullptr;
};

}  // namespace controlplane

#endif  // OVITA2_CONTROLPLANE_HTTP_SERVER_H
