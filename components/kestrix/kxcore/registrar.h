// The management of the bus: who is registered, offers and uses what. One row of a table for each command,
// with the handler that carries it out.
//
// A request is always answered, with what is granted or with an error and the reason; a notice never is. What
// a sender claims is checked against the path of the socket that it sent from, and against its process.
#ifndef REGISTRAR_H
#define REGISTRAR_H

#include <string>

#include "inbox.h"
#include "reporter.h"
#include "roster.h"
#include "strangers.h"

class registrar {
 public:
  // Components are told to send their data to `data_path`.
  registrar(roster& peers, strangers& outsiders, reporter& report, std::string data_path);

  // Carries a message out. What ends the core does not come here.
  void serve(const sender& from, const KXmessage& message);

  // From now on nobody is registered.
  void close() { m_closed = true; }

 private:
  // A message and its sender.
  struct request {
    const sender& origin;
    peer* from;  // null when it is not registered
    const KXmessage& message;

    mgmt_cmd_e cmd() const { return static_cast<mgmt_cmd_e>(message.m_header->cmd); }
  };
  // Writes what is granted into the reply, and returns why nothing is, or an empty text.
  using handler_t = std::string (registrar::*)(const request& received, KXmessage& reply);
  struct command {
    mgmt_cmd_e cmd;
    handler_t handler;
  };
  static const command commands[];

  bool is_of_the_past(const request& received) const;
  std::string carry_out(const request& received, KXmessage& reply);
  void refuse(const request& received, const std::string& name, const std::string& reason);
  void respond(const sender& to, const KXmessage& reply);

  std::string register_peer(const request& received, KXmessage& reply);
  std::string check_sockets(const sender& from, const std::string& name, const std::string& data_path) const;
  bool has_sockets_of_its_own(const peer& added) const;
  void take_place(const peer& added);
  std::string unregister_peer(const request& received, KXmessage& reply);

  std::string offer(const request& received, KXmessage& reply);
  std::string check_offer(peer& by, const std::string& name);
  std::string withdraw(const request& received, KXmessage& reply);
  std::string subscribe(const request& received, KXmessage& reply);
  std::string unsubscribe(const request& received, KXmessage& reply);

  roster& m_peers;
  strangers& m_strangers;
  reporter& m_report;
  const std::string m_data_path;
  bool m_closed = false;
};

#endif
