#ifndef KXSTUB_H
#define KXSTUB_H

#include "KXconnection.h"
#include "KXexport.h"

/// The serving end of a service.
///
/// An application derives from it, overrides process_message(KXmessage&) and registers the service under a
/// name. process_message runs on the event loop's thread for each request or signal. A response is a message
/// of its own: dst_siid is the request's src_siid, msg_type MSG_RSP or MSG_ERR, cmd and msg_id are the
/// request's, and connection_send sends it, at once or, for an asynchronous service, later. A signal goes to
/// all its subscribers when the stub sends a MSG_SIG with its own siid (m_siid) as dst_siid.
class KX_EXPORT KXstub : public KXconnection {
 public:
  /// `component` is not null and must outlive the stub.
  explicit KXstub(KXcomponent* component) : KXconnection(component) {}

  /// Register the service `name`, which is copied, with kxcore and wait, without limit, for its answer.
  /// @return 0 when the stub is already registered, which includes a stub that was disconnected; else 1, also
  ///         when kxcore could not be reached and the stub may try again
  /// @throws KXerror::ERR_ERROR_REPLY when kxcore refuses, for instance because another component offers the
  ///         service; KXerror::ERR_SIID_PRESENT when it grants a taken siid
  /// @{
  int register_synchronous(const char* name);
  int register_asynchronous(const char* name);
  int register_signal(const char* name);
  int register_service(const char* name, interface_type_e type);
  /// @}

  /// Tells kxcore that the service is withdrawn, and with `remove` leaves the component's table, unless
  /// kxcore could not be told. Nothing for a stub that was never registered. A withdrawn stub cannot be
  /// registered again.
  void disconnect(bool remove) override;

  /// Passes the message on to process_message.
  void connection_process_message(KXmessage& message) override;

  /// Descriptions of the service that kxcore receives with the registration; "none" unless overridden. Asked
  /// for once, by the registration, which copies the text.
  /// @{
  virtual const char* get_xml_comment() const;
  virtual const char* get_interface_class() const;
  /// @}
};

#endif
