#include "KXstub.h"

int KXstub::register_synchronous(const char* name) {
  KX_LOG_DEBUG1("Register function %s", name);
  return register_service(name, SYNC);
}

int KXstub::register_asynchronous(const char* name) {
  KX_LOG_DEBUG1("Register function %s", name);
  return register_service(name, ASYNC);
}

int KXstub::register_signal(const char* name) {
  KX_LOG_DEBUG1("Register signal %s", name);
  return register_service(name, SGNL);
}

int KXstub::register_service(const char* name, interface_type_e type) {
  if (m_siid != no_siid) {
    KX_LOG_ERROR("Stub already registered with siid=%d", m_siid);
    return 0;
  }
  m_service_name = name;
  KXmessage request;
  begin_request(request, type == SGNL ? CMD_REG_SIGNAL : CMD_REG_FUNCTION);
  request << m_component->m_name;
  request << m_service_name;
  request << get_xml_comment();
  request << get_interface_class();
  request << static_cast<unsigned int>(type);
  m_interface_type = type;
  if (m_component->interconnect_service(this, request)) {
    if (type == SGNL) {
      KX_LOG_DEBUG1("Stub registered [%s, siid=%d]\n", m_service_name.c_str(), m_siid);
    } else {
      KX_LOG_DEBUG1("Stub registered [%s.%s, siid=%d]\n", m_component->m_name, m_service_name.c_str(),
                    m_siid);
    }
  }
  return 1;
}

void KXstub::disconnect(bool remove) {
  if (m_siid == no_siid) return;
  KXmessage notice;
  begin_request(notice, m_interface_type == SGNL ? CMD_UNREG_SIGNAL : CMD_UNREG_FUNCTION);
  notice << m_siid;
  if (!m_component->interconnect_service(this, notice)) return;
  if (remove) m_component->remove_connection(this);
  KX_LOG_DEBUG1("unregistered service [%s]\n", m_service_name.c_str());
}

void KXstub::connection_process_message(KXmessage& message) { process_message(message); }

const char* KXstub::get_xml_comment() const { return "none"; }
const char* KXstub::get_interface_class() const { return "none"; }
