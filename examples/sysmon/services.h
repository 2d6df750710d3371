// Shows: what the two ends of a service share. The services of sysmon, with the values of their payloads:
//
//   name             kind                   request             response, or signal
//   sysmon.metric    synchronous function   string name         string value
//   sysmon.checksum  asynchronous function  string path         uint32 CRC, uint64 bytes, as `cksum` has them
//   sysmon.load      signal                 -                   uint32 load average of a minute, times 100
//
// A function that cannot answer responds with a MSG_ERR and a string that says why; so does kxcore for a
// request that it cannot deliver.
#ifndef SYSMON_SERVICES_H
#define SYSMON_SERVICES_H

#include <cstdint>

#include "KXmessage.h"

constexpr char metric_service[] = "sysmon.metric";
constexpr char checksum_service[] = "sysmon.checksum";
constexpr char load_service[] = "sysmon.load";

// The numbers in msg_header_t::cmd are the application's own.
enum sysmon_cmd_e : std::uint8_t { CMD_READ_METRIC = 1, CMD_SUM_FILE = 2, CMD_LOAD_SAMPLE = 3 };

// An empty response, MSG_RSP or MSG_ERR, to the request with this header. By the id, which must be the
// request's own, its sender knows what is answered.
inline KXmessage reply_to(const msg_header_t& request, msg_type_e type) {
  KXmessage reply;
  reply.m_header->dst_siid = request.src_siid;
  reply.m_header->msg_type = type;
  reply.m_header->cmd = request.cmd;
  reply.m_header->msg_id = request.msg_id;
  return reply;
}

#endif
