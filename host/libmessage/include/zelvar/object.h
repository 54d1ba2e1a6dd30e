// Object: the root of the host framework's polymorphic helper objects, so that
// any of them can be owned and deleted through one base.
#ifndef ZELVAR_OBJECT_H
#define ZELVAR_OBJECT_H

namespace zelvar {

class Object {
 public:
  Object() = default;
  virtual ~Object() = default;
};

}  // namespace zelvar

#endif  // ZELVAR_OBJECT_H
