// Round trips of kxbench, made and served with the layer kx.
#include <memory>
#include <string>

#include "child_process.h"
#include "echo.h"
#include "kx/app.h"
#include "kx/client.h"
#include "kx/service.h"
#include "private_bus.h"
#include "support.h"

namespace {

constexpr char usage[] =
    "usage: kxlayer rtt N [--size BYTES] [--pin CPU]\n"
    "\n"
    "  rtt N         make N synchronous calls between two components through kxcore;\n"
    "                prints us_per_roundtrip=<float>\n"
    "  --size BYTES  size of each datagram, 27 to 2048; 64 without it\n"
    "  --pin CPU     keep all processes on one processor\n";

constexpr char service_name[] = "kxlayer.echo";
constexpr int echo = 0;

int serve(kx::port& app) {
  kx::service service(app, service_name);
  service.on<int, std::string>(
      echo, [](kx::request& asked, int number, const std::string& text) { asked.reply(number, text); });
  return app.run();
}

void call(kx::client& service, long number, const std::string& text) {
  const auto answer = service.call<int, std::string>(echo, static_cast<int>(number), text);
  if (!answer) bench::fail("request %ld: %s", number, answer.error().reason.c_str());
  if (*answer != std::tuple(number, text)) bench::fail("request %ld has a wrong answer", number);
}

}  // namespace

int main(int argc, char** argv) {
  const bench::options options = bench::parse(argc, argv, usage, smallest_datagram);
  if (options.mode != "rtt") bench::fail("%s", usage);
  const std::string text = text_for(options.size);
  enter_private_bus();

  const std::unique_ptr<child_process> core = start_core();
  child_process server([] { kx::run("kxlayer-server", serve); });
  kx::app app("kxlayer-client");
  kx::client service(app, service_name);
  service.on_available([&] {
    bench::run(
        options, false, [](long) {}, [&](long number) { call(service, number, text); });
    app.quit();
  });
  return app.run();
}
