#include "plugin/http_server.h"

#include <event2/buffer.h>
#include <event2/http.h>
#include <event2/keyvalq_struct.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "plugin/host_access.h"

namespace controlplane {
namespace {

// The request's path and decoded query parameters; false when the URI cannot
// be parsed.
bool SplitUri(evhttp_request* request, std::string* path, QueryParams* params) {
  const evhttp_uri* uri = evhttp_request_get_evhttp_uri(request);
  if (uri == nullptr) return false;
  const char* rawPath = evhttp_uri_get_path(uri);
  char* decoded = evhttp_uridecode(rawPath != nullptr && *rawPath != '\0' ? rawPath : "/", 0, nullptr);
  if (decoded == nullptr) return false;
  *path = decoded;
  free(decoded);
  const char* query = evhttp_uri_get_query(uri);
  if (query == nullptr) return true;
  evkeyvalq pairs;
  if (evhttp_parse_query_str(query, &pairs) != 0) return false;
  for (evkeyval* pair = pairs.tqh_first; pair != nullptr; pair = pair->next.tqe_next) {
    (*params)[pair->key] = pair->value;
  }
  evhttp_clear_headers(&pairs);
  return true;
}

void Send(evhttp_request* request, const WebReply& reply) {
  evkeyvalq* headers = evhttp_request_get_output_headers(request);
  evhttp_add_header(headers, "Content-Type", reply.content_type.c_str());
  // The page polls; a cached answer would freeze it.
  evhttp_add_header(headers, "Cache-Control", "no-store");
  evbuffer* body = evbuffer_new();
  // evhttp would send a HEAD answer's body too; it gets the length of the
  // body a GET would have, and no body.
  if (evhttp_request_get_command(request) == EVHTTP_REQ_HEAD) {
    evhttp_add_header(headers, "Content-Length", std::to_string(reply.body.size()).c_str());
  } else {
    evbuffer_add(body, reply.body.data(), reply.body.size());
  }
  evhttp_send_reply(request, reply.status, nullptr, body);
  evbuffer_free(body);
}

}  // namespace

HttpServer::~HttpServer() {
  if (m_pHttp != nullptr) evhttp_free(m_pHttp);
}

bool HttpServer::Listen(event_base* base, const std::string& ip, int port, std::string* error) {
  m_pHttp = evhttp_new(base);
  if (m_pHttp == nullptr) {
    *error = "cannot set up the HTTP server";
    return false;
  }
  // Every method reaches OnRequest, which answers those it does not serve
  // with 405 rather than evhttp's 501.
  evhttp_set_allowed_methods(m_pHttp, EVHTTP_REQ_GET | EVHTTP_REQ_POST | EVHTTP_REQ_HEAD | EVHTTP_REQ_PUT |
                                          EVHTTP_REQ_DELETE | EVHTTP_REQ_OPTIONS | EVHTTP_REQ_PATCH);
  evhttp_set_gencb(m_pHttp, &HttpServer::OnRequest, this);
  errno = 0;
  if (evhttp_bind_socket_with_handle(m_pHttp, ip.c_str(), static_cast<uint16_t>(port)) == nullptr) {
    *error = "[controlplane] http: cannot listen on " + ip + ":" + std::to_string(port) + ": " +
             (errno != 0 ? std::strerror(errno) : "not an address");
    return false;
  }
  return true;
}

void HttpServer::OnRequest(evhttp_request* request, void* self) { static_cast<HttpServer*>(self)->Answer(request); }

void HttpServer::Answer(evhttp_request* request) const {
  evhttp_cmd_type method = evhttp_request_get_command(request);
  if (method != EVHTTP_REQ_GET && method != EVHTTP_REQ_HEAD) {
    evhttp_add_header(evhttp_request_get_output_headers(request), "Allow", "GET, HEAD");
    Send(request, {405, "text/plain; charset=utf-8", "read-only: only GET and HEAD are answered\n"});
    return;
  }
  std::string path;
  QueryParams params;
  if (!SplitUri(request, &path, &params)) {
    Send(request, {400, "text/plain; charset=utf-8", "bad request URI\n"});
    return;
  }
  Send(request, m_pRoutes->Answer(path, params, HostNow()));
}

}  // namespace controlplane
