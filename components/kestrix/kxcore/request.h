// A data request, and the core's answer in place of whom it was sent to.
#ifndef REQUEST_H
#define REQUEST_H

#include <arpa/inet.h>

#include <new>

#include "management.h"
#include "open_requests.h"

inline open_request request_of(const KXmessage& message) {
  const msg_header_t& header = *message.m_header;
  return {ntohl(header.src_siid), ntohl(header.dst_siid), ntohl(header.msg_id), header.cmd};
}

inline KXmessage answer_to(const open_request& request, msg_type_e type) {
  KXmessage answer = make_management(type, request.cmd, request.msg_id);
  answer.m_header->dst_siid = htonl(request.from);
  answer.m_header->src_siid = htonl(request.to);
  return answer;
}

inline KXmessage failure_of(const open_request& request, const char* reason) {
  KXmessage failure = answer_to(request, MSG_ERR);
  try {
    failure << reason;
  } catch (const std::bad_alloc&) {  // then without a word
  }
  return failure;
}

#endif
