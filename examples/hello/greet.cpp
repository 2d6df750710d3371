// Calls "hello" once and prints the greeting, or why there is none.
#include <cstdio>
#include <string>

#include "kx/app.h"
#include "kx/client.h"

int greet(kx::port& app) {
  kx::client hello(app, "hello");
  app.on_ready([&] {
    const auto greeting = hello.call<std::string>(1, "world");
    std::puts((greeting ? *greeting : greeting.error().reason).c_str());
    app.quit(greeting ? 0 : 1);
  });
  return app.run();
}

int main() { return kx::run("greet", greet); }
