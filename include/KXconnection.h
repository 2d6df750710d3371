#ifndef KXCONNECTION_H
#define KXCONNECTION_H

#include <string>

#include "KXcomponent.h"
#include "KXexport.h"
#include "KXlog.h"
#include "KXmessage.h"
#include "peer_info.h"

/// One end of a service: the base of KXstub, which serves, and KXproxy, which uses.
///
/// A connection belongs to one component, which must outlive it. The application owns the connection. One
/// that has been registered or subscribed may be destroyed after disconnect(true), or when the component has
/// stopped and will not run again: the destructor does not disconnect. All operations belong to the thread of
/// the component's event loop, before or during it, unless said otherwise.
class KX_EXPORT KXconnection {
 public:
  /// The kind of a service; -1, held by a new connection, means not connected.
  enum interface_type_e : int {
    SYNC = 0,   ///< function, the caller blocks for the response
    ASYNC = 1,  ///< function, the response is delivered later
    SGNL = 2    ///< signal: one-way, may have many receivers in one component
  };

  /// The names of the kinds, indexed by their values.
  static const char* const interface_type2str[3];

  /// `component` is not null and stays the caller's.
  explicit KXconnection(KXcomponent* component)
      : m_component(component), m_siid(no_siid), m_interface_type(not_connected) {}
  KXconnection(const KXconnection&) = delete;
  KXconnection& operator=(const KXconnection&) = delete;
  virtual ~KXconnection() = default;

  /// Tells kxcore that the connection is withdrawn; with `remove` also leaves the component's table of siids.
  /// May be called from any handler, the connection's own included.
  virtual void disconnect(bool remove) = 0;

  /// Called by the event loop with each message for the connection's siid. `message` is the caller's;
  /// connections that share a siid receive the same object one after the other, read cursor where the one
  /// before left it.
  virtual void connection_process_message(KXmessage& /*message*/) {
    KX_LOG_ERROR("Error, this function should never be called [%s]]",
                 "virtual void KXconnection::connection_process_message(KXmessage&)");
  }

  /// Overridden by the application to handle a message.
  virtual void process_message(KXmessage& /*message*/) {
    KX_LOG_ERROR("Error, this function should never be called [%s]]",
                 "virtual void KXconnection::process_message(KXmessage&)");
  }

  /// For an application that wants to pass the sender on; the library does not call it.
  virtual void process_message(KXmessage& /*message*/, peer_info_t& /*peer*/) {
    KX_LOG_ERROR("Error, this function should never be called; [%s]]",
                 "virtual void KXconnection::process_message(KXmessage&, peer_info_t&)");
  }

  /// Stamps the connection's siid on `message` as its source and sends it to kxcore. The caller has set
  /// dst_siid, msg_type, cmd, msg_id and the payload. May block for about two seconds when the core's queue
  /// is full.
  /// @return whether it was sent
  bool connection_send(KXmessage& message);

  /// Empties `message` and receives the next datagram of the component's data socket into it, whatever its
  /// destination, waiting for at most 10 seconds.
  /// @return whether a datagram with content arrived
  bool connection_receive(KXmessage& message);

 protected:
  friend class KXcomponent;
  friend class KXclientComponent;

  /// What m_interface_type holds before the first registration or subscription, and in a proxy that was
  /// disconnected.
  static constexpr interface_type_e not_connected = static_cast<interface_type_e>(-1);

  /// As connection_receive; the number of bytes received, 0 when none came in time, or -1.
  int receive_datagram(KXmessage& message);

  /// Begins a management request: its command, and an id of its own.
  static void begin_request(KXmessage& message, mgmt_cmd_e cmd);

  KXcomponent* m_component;           ///< never null
  unsigned int m_siid;                ///< granted by kxcore; no_siid before
  interface_type_e m_interface_type;  ///< the kind asked for last
  std::string m_service_name;         ///< the name asked for last
};

#endif
