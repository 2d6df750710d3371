// The loads of kxbench over D-Bus: two processes with sd-bus, and a dbus-daemon or dbus-broker of their own
// between them.
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <string>

#include "child_process.h"
#include "dbus_broker.h"
#include "private_bus.h"
#include "support.h"

namespace {

constexpr char usage[] =
    "usage: sdbusbench rtt[-broker]|oneway[-broker] N [--size BYTES] [--pin CPU]\n"
    "\n"
    "  The loads of kxbench over D-Bus: method calls, and calls without a reply; through dbus-daemon, or "
    "with\n"
    "  -broker through dbus-broker.\n"
    "  --size BYTES  size of the datagram whose number and text are sent, at least 27\n";

constexpr char socket_path[] = "/tmp/kxcore/dbus";
constexpr char configuration_path[] = "/tmp/kxcore/dbus.conf";
constexpr char server_name[] = "bench.Server";
constexpr char object[] = "/bench";
constexpr char interface[] = "bench.Echo";

constexpr int smallest_size = 27;
constexpr int size_without_text = 23;  // of a datagram of kxbench: header, number, frame of the text

void expect(int result) {
  if (result < 0) bench::fail("D-Bus: %s", std::strerror(-result));
}

void write_configuration() {
  std::ofstream(configuration_path)
      << "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\""
         " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">"
         "<busconfig><type>session</type><auth>EXTERNAL</auth><listen>unix:path="
      << socket_path
      << "</listen><policy context=\"default\"><allow send_destination=\"*\"/>"
         "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>";
}

sd_bus* connect() {
  const std::string address = std::string("unix:path=") + socket_path;
  for (int tries = 0;; ++tries) {
    sd_bus* bus = nullptr;
    expect(sd_bus_new(&bus));
    expect(sd_bus_set_address(bus, address.c_str()));
    expect(sd_bus_set_bus_client(bus, 1));
    const int started = sd_bus_start(bus);
    if (started >= 0) return bus;
    sd_bus_unref(bus);
    if (tries == 10'000) expect(started);
    usleep(1000);
  }
}

// Processes what is there, or waits for more.
void turn(sd_bus* bus) {
  const int processed = sd_bus_process(bus, nullptr);
  expect(processed);
  if (processed == 0) expect(sd_bus_wait(bus, UINT64_MAX));
}

void call_without_reply(sd_bus* bus, const char* destination, const char* method, int number,
                        const char* text) {
  sd_bus_message* message = nullptr;
  expect(sd_bus_message_new_method_call(bus, &message, destination, object, interface, method));
  expect(sd_bus_message_set_expect_reply(message, 0));
  expect(sd_bus_message_append(message, "is", number, text));
  expect(sd_bus_send(bus, message, nullptr));
  sd_bus_message_unref(message);
}

struct values {
  int number;
  const char* text;
};

values read(sd_bus_message* message) {
  values read = {};
  expect(sd_bus_message_read(message, "is", &read.number, &read.text));
  return read;
}

int echo(sd_bus_message* request, void*, sd_bus_error*) {
  const values sent = read(request);
  return sd_bus_reply_method_return(request, "is", sent.number, sent.text);
}

int take_note(sd_bus_message* note, void* count, sd_bus_error*) {
  const values sent = read(note);
  long& received = *static_cast<long*>(count);
  if (++received % bench::stream.answered_at_once == 0) {
    call_without_reply(sd_bus_message_get_bus(note), sd_bus_message_get_sender(note), "Acknowledge",
                       sent.number, sent.text);
  }
  return 1;
}

int take_acknowledgement(sd_bus_message* message, void* last, sd_bus_error*) {
  *static_cast<long*>(last) = read(message).number;
  return 1;
}

const sd_bus_vtable server_methods[] = {
    SD_BUS_VTABLE_START(0), SD_BUS_METHOD("Echo", "is", "is", echo, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Note", "is", "", take_note, SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_VTABLE_END};

const sd_bus_vtable client_methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Acknowledge", "is", "", take_acknowledgement,
                  SD_BUS_VTABLE_UNPRIVILEGED | SD_BUS_VTABLE_METHOD_NO_REPLY),
    SD_BUS_VTABLE_END};

void serve() {
  long received = 0;
  sd_bus* bus = connect();
  expect(sd_bus_add_object_vtable(bus, nullptr, object, interface, server_methods, &received));
  expect(sd_bus_request_name(bus, server_name, 0));
  for (;;)
    turn(bus);
}

void wait_for_server(sd_bus* bus) {
  sd_bus_creds* owner = nullptr;
  for (int tries = 0; sd_bus_get_name_creds(bus, server_name, 0, &owner) < 0; ++tries) {
    if (tries == 10'000) bench::fail("the server does not appear");
    usleep(1000);
  }
  sd_bus_creds_unref(owner);
}

void measure_calls(sd_bus* bus, const bench::options& options, const char* text) {
  bench::run(
      options, false, [](long) {},
      [&](long number) {
        sd_bus_message* reply = nullptr;
        expect(sd_bus_call_method(bus, server_name, object, interface, "Echo", nullptr, &reply, "is",
                                  static_cast<int>(number), text));
        const values back = read(reply);
        if (back.number != number || std::strcmp(back.text, text) != 0) bench::fail("wrong answer");
        sd_bus_message_unref(reply);
      });
}

void measure_notes(sd_bus* bus, const bench::options& options, const char* text) {
  long acknowledged = -1;
  expect(sd_bus_add_object_vtable(bus, nullptr, object, interface, client_methods, &acknowledged));
  bench::run(
      options, true,
      [&](long number) { call_without_reply(bus, server_name, "Note", static_cast<int>(number), text); },
      [&](long number) {
        while (acknowledged != number)
          turn(bus);
      });
}

}  // namespace

int main(int argc, char** argv) {
  bench::options options = bench::parse(argc, argv, usage, smallest_size);
  const bool is_broker = bench::take_suffix(options, "-broker");
  const bool oneway = bench::is_oneway(options, usage);
  const std::string text(static_cast<std::size_t>(options.size - size_without_text), 'x');
  enter_private_bus();

  write_configuration();
  child_process daemon([is_broker] {
    if (is_broker) become_dbus_broker(socket_path, configuration_path);
    execlp("dbus-daemon", "dbus-daemon", "--nofork", "--config-file", configuration_path, nullptr);
    bench::fail("cannot start dbus-daemon");
  });
  child_process server(serve);
  sd_bus* bus = connect();
  wait_for_server(bus);
  (oneway ? measure_notes : measure_calls)(bus, options, text.c_str());
  sd_bus_flush_close_unref(bus);
  unlink(socket_path);
  unlink(configuration_path);
  return 0;
}
