// Session identifiers for request heads.
#ifndef ZELVAR_MY_UUID_H
#define ZELVAR_MY_UUID_H

#include <string>

namespace zelvar {

class MyUuid {
 public:
  // A fresh random UUID in its 36-character lower-case text form.
  static std::string NewUuid();
};

}  // namespace zelvar

#endif  // ZELVAR_MY_UUID_H
