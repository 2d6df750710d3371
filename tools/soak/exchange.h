// The exchange that a soak checks: a request holds a number and a text, its response what a server makes of
// the number, different for each, and the same text. So no request takes the response of another for its own.
#ifndef EXCHANGE_H
#define EXCHANGE_H

#include <cstddef>
#include <string>

#include "KXproxy.h"
#include "KXstub.h"

constexpr int largest_text = 2048 - 14 - 9 - 4;  // beside header, number and the string's own bytes

// The server's side.
class echo : public KXstub {
 public:
  using KXstub::KXstub;
  using KXstub::process_message;
  void process_message(KXmessage& request) override;

 private:
  std::string m_text;
};

// The caller's side: one request whose text has this length; what is wrong with its response, or null.
const char* call(KXproxy& proxy, unsigned long long number, std::size_t length);
extern const char not_its_own[];  // what is wrong with another's response

// Prints what is wrong with the response that the component `name` got, and counts it on the board.
void fail_request(const std::string& name, unsigned long long number, const char* what);

#endif
