#include "zelvar/my_uuid.h"

#include <uuid/uuid.h>

namespace zelvar {

std::string MyUuid::NewUuid() {
  uuid_t uuid;
  uuid_generate_random(uuid);
  char text[37];
  uuid_unparse_lower(uuid, text);
  return std::string(text, 36);
}

}  // namespace zelvar
