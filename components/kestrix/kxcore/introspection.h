// The services of the core itself, and what is kept free for them.
#ifndef INTROSPECTION_H
#define INTROSPECTION_H

#include <string>

class introspection {
 public:
  // Whether a service may only be offered by the core.
  static bool reserves(const std::string& service) { return service.rfind("kxcore.", 0) == 0; }
};

#endif
