#ifndef KXPROXY_H
#define KXPROXY_H

#include "KXconnection.h"
#include "KXexport.h"
#include "KXproxyReplyInterface.h"

/// The using end of a service.
///
/// An application subscribes it to a service by name and calls proxy_send with messages of which it has set
/// cmd and the payload. To receive asynchronous responses and signals it derives from the class and overrides
/// process_message(KXmessage&), which runs on the event loop's thread.
class KX_EXPORT KXproxy : public KXconnection {
 public:
  /// @param component not null; must outlive the proxy
  /// @param timeout seconds after which a synchronous request gives up while only other messages arrive; when
  ///         none arrives at all it gives up after 10 seconds, whatever `timeout` is
  explicit KXproxy(KXcomponent* component, unsigned int timeout = 10)
      : KXconnection(component),
        m_reply_interface(nullptr),
        m_service_siid(no_siid),
        m_mid(0),
        m_mid_first(0),
        m_mid_end(0),
        m_timeout(timeout) {}

  /// Subscribe to the service `name` with kxcore and wait, without limit, for its answer.
  /// `name` is copied. `reply` is stored for process_message of the application's own class; not owned, may
  /// be null.
  /// @return 1, or 0 when kxcore could not be reached
  /// @throws KXerror::ERR_ERROR_REPLY when kxcore refuses, for instance because nobody offers the service
  ///         yet; KXerror::ERR_SIID_PRESENT when it grants a taken siid. After either the application may
  ///         subscribe again; until it has, proxy_send does not refuse, but kxcore drops what it sends. A
  ///         proxy that is subscribed is to be disconnected with `remove` before: each subscription binds it
  ///         once more, and disconnect withdraws the last one only; the earlier ones stay until the component
  ///         ends.
  /// @{
  int subscribe_synchronous(const char* name);
  int subscribe_asynchronous(const char* name, KXproxyReplyInterface* reply);
  int subscribe_signal(const char* name);
  int subscribe_service(const char* name, interface_type_e type, KXproxyReplyInterface* reply);
  /// @}

  /// Sends a request or signal to the service. A synchronous proxy then blocks for the response: messages
  /// that arrive meanwhile are dispatched by the event loop afterwards, timers do not fire. It may be called
  /// from handlers of every kind and, on a synchronous proxy, from any thread: synchronous requests of one
  /// component run one at a time, and meanwhile an event loop on another thread fires no timer and goes no
  /// further than its next look at the timers or at the data socket. Such threads must be done before the
  /// component stops: stop does not wait for them, and a request that it overtakes yields 0. A service of the
  /// same component cannot answer it: the proxy takes its own request for the response.
  /// @return synchronous: 1 with the response in `message` (a msg_type of MSG_ERR is one, too), read cursor
  ///         at the start of its payload; 0 when it was not sent or no response came. Others: 1 when sent,
  ///         else 0.
  int proxy_send(KXmessage& message);

  /// Tells kxcore that the subscription ends; with `remove` also leaves the component's table of siids. Does
  /// nothing when it is disconnected already: after disconnect(false) only KXcomponent::remove_connection
  /// takes it off the table.
  void disconnect(bool remove) override;

  /// Passes the message on to process_message.
  void connection_process_message(KXmessage& message) override;

  /// Handles a response or signal, on the event loop's thread; `message` is the caller's, read cursor at the
  /// start of its payload unless another subscriber in the component has read before. An application that
  /// expects messages overrides it; here it writes an ERROR line.
  void process_message(KXmessage& /*message*/) override {
    KX_LOG_ERROR("Error, this function should never be called [%s]]\n",
                 "virtual void KXproxy::process_message(KXmessage&)");
  }
  using KXconnection::process_message;

 protected:
  friend class KXclientComponent;

  KXproxyReplyInterface* m_reply_interface;  ///< as given with the subscription; may be null
  unsigned int m_service_siid;               ///< of the stub; no_siid before the subscription
  unsigned int m_mid;                        ///< id of the last message sent
  unsigned int m_mid_first;                  ///< first message id that kxcore granted
  unsigned int m_mid_end;                    ///< first message id behind the grant
  unsigned int m_timeout;                    ///< seconds

 private:
  void address(KXmessage& message);
  bool await_response(KXmessage& message, unsigned int awaited);
};

#endif
