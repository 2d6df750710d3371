#include "exchange.h"

#include <cstdint>
#include <cstdio>

#include "board.h"

const char not_its_own[] = "is not its own";

namespace {

std::uint64_t answer_to(std::uint64_t number) { return number * 0x9E3779B97F4A7C15 + 1; }

}  // namespace

void echo::process_message(KXmessage& request) {
  unsigned long long number = 0;
  request >> number;
  request >> m_text;
  KXmessage response;
  response.m_header->dst_siid = request.m_header->src_siid;
  response.m_header->msg_type = MSG_RSP;
  response.m_header->cmd = request.m_header->cmd;
  response.m_header->msg_id = request.m_header->msg_id;
  response << static_cast<unsigned long long>(answer_to(number));
  response << m_text;
  if (request.m_header->msg_type == MSG_REQ) connection_send(response);
}

const char* call(KXproxy& proxy, unsigned long long number, std::size_t length) {
  const std::string text(length, static_cast<char>('a' + number % 26));
  KXmessage message;
  message << number;
  message << text;
  if (proxy.proxy_send(message) == 0) return "is missing";
  if (message.m_header->msg_type != MSG_RSP) return "is an error";
  unsigned long long answer = 0;
  std::string returned;
  message >> answer;
  message >> returned;
  return answer == answer_to(number) && returned == text ? nullptr : not_its_own;
}

void fail_request(const std::string& name, unsigned long long number, const char* what) {
  std::fprintf(stderr, "%s: the response to request %llu %s\n", name.c_str(), number, what);
  ++board->failed;
}
