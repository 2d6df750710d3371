// Offers the service "hello": its command 1 takes a name and answers with a greeting.
#include <string>

#include "kx/app.h"
#include "kx/service.h"

int hello(kx::port& app) {
  kx::service service(app, "hello");
  service.on<std::string>(1, [](kx::request& asked, const std::string& name) {
    asked.reply("Hello, " + name + "!");  // or asked.refuse("why not"); or it is kept, and answered later
  });
  return app.run();
}

int main() { return kx::run("hello", hello); }
