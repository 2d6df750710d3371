// The service that the benchmarks call: it answers a number and a text with the same number and text.
#ifndef ECHO_H
#define ECHO_H

#include <memory>
#include <string>

#include "KXproxy.h"
#include "child_process.h"

// Starts kxcore, and ends the program when it does not start.
std::unique_ptr<child_process> start_core();

// Runs a component that answers each request, and of signals one in four; until its process is ended.
void serve_echo();

// Datagrams of the service have at least this size; the text for a datagram of a size.
constexpr int smallest_datagram = 27;
std::string text_for(int datagram_size);

KXmessage make_request(int number, const std::string& text);

// Subscribes to the service, as soon as it is offered.
void subscribe_when_offered(KXproxy& proxy);

// Makes one synchronous call and checks the answer.
class echo_caller {
 public:
  echo_caller(KXproxy& proxy, const std::string& text) : m_proxy(proxy), m_text(text) {}
  void operator()(long number);

 private:
  KXproxy& m_proxy;
  const std::string m_text;
  std::string m_answered;
};

#endif
