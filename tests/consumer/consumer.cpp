// An application outside of the project's tree, with the classes and with the layer kx. With a name as
// argument it also joins the bus for a moment.
#include <cstdio>
#include <string>

#include "KXclientComponent.h"
#include "kx/app.h"
#include "kx/client.h"
#include "kx/service.h"
#include "kx/signals.h"
#include "kx/testing.h"

int main(int argc, char** argv) {
  KXmessage message;
  message << 7;
  message << "sevenfold";
  int number = 0;
  std::string text;
  message >> number;
  message >> text;
  std::printf("%d %s\n", number, text.c_str());

  kx::testing::bus bus;
  kx::testing::app app(bus, "consumer");
  kx::service service(app, "sevenfold");
  service.on<int>(1, [&](kx::request& asked, int times) { asked.reply(number * times); });
  kx::client client(app, "sevenfold");
  app.start();
  client.async<int>(1, 6).then([&](const kx::result<int>& product) { number = product.value_or(0); });
  bus.settle();
  std::printf("%d\n", number);

  if (argc > 1) KXclientComponent(argv[1]).start(KXcomponent::CMP_START_AND_STOP);
  return number == 42 && text == "sevenfold" ? 0 : 1;
}
