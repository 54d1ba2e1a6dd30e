#include "common/zk_command.h"

#include <climits>
#include <cstring>
#include <string>

namespace zelvar::registry {

bool ZKCommand::IsValidPath(const char* path, bool sequential) {
  if (path == nullptr || path[0] != '/') return false;
  std::string text(path);
  if (text == "/") return true;
  if (text.back() == '/') {
    if (!sequential) return false;
    text.pop_back();
    if (text.empty()) return true;
  }
  size_t start = 1;
  while (start <= text.size()) {
    size_t end = text.find('/', start);
    if (end == std::string::npos) end = text.size();
    std::string component = text.substr(start, end - start);
    if (component.empty() || component == "." || component == "..") return false;
    start = end + 1;
  }
  return true;
}

int ZKCommand::Decode(const char* command, va_list args, ZKCommand* out) {
  if (command == nullptr || out == nullptr) return ZBADARGUMENTS;
  *out = ZKCommand();
  if (strcmp(command, "set_callback") == 0) {
    out->kind = ZKCommandKind::kSetCallback;
    out->callback = va_arg(args, ConnectionCallback);
    return ZOK;
  }
  if (strcmp(command, "listvalue") == 0 || strcmp(command, "get") == 0) {
    out->kind = command[0] == 'l' ? ZKCommandKind::kListValue : ZKCommandKind::kGet;
    out->path = va_arg(args, const char*);
    out->watcher = va_arg(args, watcher_fn);
    return IsValidPath(out->path, false) ? ZOK : ZBADARGUMENTS;
  }
  if (strcmp(command, "create") == 0) {
    out->kind = ZKCommandKind::kCreate;
    out->path = va_arg(args, const char*);
    out->data = va_arg(args, const char*);
    out->length = va_arg(args, int64_t);
    out->flags = va_arg(args, int);
    if (out->length < 0 || out->length > INT32_MAX) return ZBADARGUMENTS;
    if (out->data == nullptr && out->length != 0) return ZBADARGUMENTS;
    bool sequential = (out->flags & ZOO_SEQUENCE) != 0;
    return IsValidPath(out->path, sequential) ? ZOK : ZBADARGUMENTS;
  }
  return ZBADARGUMENTS;
}

}  // namespace zelvar::registry
