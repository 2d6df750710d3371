// What a component and the core both know of the messages between them.
#ifndef MANAGEMENT_H
#define MANAGEMENT_H

#include <arpa/inet.h>

#include <cstddef>
#include <cstdint>
#include <iterator>

#include "KXmessage.h"

// Message ids with a meaning of their own, beside 0: no other request carries one of them.
constexpr std::uint32_t registration_id = 0x11111111;
constexpr std::uint32_t unregistration_id = 0x22222222;
constexpr std::uint32_t own_message_id = 0x33333333;  // of what a component sends to itself, and of a kill

constexpr bool is_reserved_id(std::uint32_t id) {
  return id == 0 || id == registration_id || id == unregistration_id || id == own_message_id;
}

// What a command asks for. A withdrawal is a notice, which nobody answers; a registration, an offer and a
// subscription are requests. An offer is answered with the siid of its stub, a subscription with four
// numbers.
enum command_kind_e { OTHER, REGISTRATION, OFFER, SUBSCRIPTION, WITHDRAWAL };

struct command_facts {
  command_kind_e kind;
  bool of_signal;  // of a signal service, where the kind has commands of two sorts
};

constexpr command_facts facts_of(std::uint8_t cmd) {
  constexpr command_facts facts[] = {
      {OTHER, false},         // CMD_NONE
      {REGISTRATION, false},  // CMD_REG_COMPONENT
      {WITHDRAWAL, false},    // CMD_UNREG_COMPONENT
      {OFFER, false},         // CMD_REG_FUNCTION
      {OFFER, true},          // CMD_REG_SIGNAL
      {WITHDRAWAL, false},    // CMD_UNREG_FUNCTION
      {WITHDRAWAL, true},     // CMD_UNREG_SIGNAL
      {SUBSCRIPTION, false},  // CMD_SUB_FUNCTION
      {SUBSCRIPTION, true},   // CMD_SUB_SIGNAL
      {WITHDRAWAL, false},    // CMD_UNSUB_FUNCTION
      {WITHDRAWAL, true},     // CMD_UNSUB_SIGNAL
      {OTHER, false},         // CMD_KILL_COMPONENT
  };
  return cmd < std::size(facts) ? facts[cmd] : command_facts{OTHER, false};
}

constexpr bool awaits_reply(std::uint8_t cmd) {
  const command_kind_e kind = facts_of(cmd).kind;
  return kind == REGISTRATION || kind == OFFER || kind == SUBSCRIPTION;
}

inline bool is_management(const KXmessage& message) {
  return ntohl(message.m_header->src_siid) == management_siid;
}

// Gives `message` the addresses of a management message, and its type.
inline void address_management(KXmessage& message, msg_type_e type) {
  message.m_header->dst_siid = htonl(management_siid);
  message.m_header->src_siid = htonl(management_siid);
  message.m_header->msg_type = type;
}

inline KXmessage make_management(msg_type_e type, std::uint8_t cmd, std::uint32_t msg_id) {
  KXmessage message;
  address_management(message, type);
  message.m_header->cmd = cmd;
  message.m_header->msg_id = htonl(msg_id);
  return message;
}

#endif
