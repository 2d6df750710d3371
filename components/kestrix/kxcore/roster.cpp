#include "roster.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "datagram.h"
#include "management.h"
#include "request.h"
#include "socket_address.h"

namespace {

template <typename Map>
auto find_in(const Map& map, const std::string& path) -> decltype(&*map.find(path)->second) {
  const auto entry = map.find(path);
  return entry == map.end() ? nullptr : &*entry->second;
}

}  // namespace

roster::roster(reporter& report) : m_report(report), m_probe(open_datagram()) {
  if (m_probe.get() < 0) throw std::system_error(errno, std::generic_category(), "cannot create a socket");
}

peer* roster::at_mgmt(const std::string& path) const { return find_in(m_peers, path); }
peer* roster::at_data(const std::string& path) const { return find_in(m_by_data_path, path); }

void roster::add(std::unique_ptr<peer> added) {
  peer& registered = *added;
  m_by_data_path[registered.data_path] = &registered;
  try {
    m_peers[registered.mgmt_path] = std::move(added);
  } catch (...) {
    m_by_data_path.erase(registered.data_path);
    throw;
  }
  if (registered.process.get() >= 0) watch_for(registered, registered.process.get(), watch::PROCESS_ENDED);
}

void roster::watch_for(peer& owner, int fd, watch::kind_e kind) {
  if (m_watch.add(owner, fd, kind)) return;
  m_report.problem("cannot watch a descriptor of %s: %s", owner.name.c_str(), strerror(errno));
}

// --- the way to a component ---

outlet::result_e roster::send(peer& to, outlet& way, const KXmessage& message, const peer* from) {
  if (to.is_gone) return outlet::GONE;
  const bool had_queue = way.has_queue();
  const outlet::result_e result =
      way.send(message.m_header, static_cast<std::size_t>(message.datagram_size()),
               from == nullptr ? 0 : from->serial);
  if (result == outlet::QUEUED && !had_queue) watch_for(to, way.fd(), watch::ROOM);
  if (result == outlet::GONE) give_up(to, "its socket is gone");
  if (result == outlet::FULL && reporter::is_reported(way.lost())) {
    m_report.problem("%s does not read: its queue of %zu KiB is full for %s (%lu lost so far)",
                     to.name.c_str(), outlet::max_queued / 1024,
                     from == nullptr ? "kxcore" : from->name.c_str(), way.lost());
  }
  return result;
}

void roster::flush(peer& to, outlet& way) {
  if (to.is_gone || !way.has_queue()) return;
  const outlet::result_e result = way.flush();
  if (result == outlet::GONE) return give_up(to, "its socket is gone");
  if (result != outlet::SENT) return;
  m_watch.remove(way.fd());
  if (const unsigned long lost = way.take_lost(); lost > 0) {
    m_report.problem("%s reads again: %lu messages to it were lost", to.name.c_str(), lost);
  }
}

bool roster::serve(bool held) {
  bool ended = false;
  watch::event events[watch::max_events];
  const unsigned int count = m_watch.look(events);
  for (unsigned int i = 0; i < count; ++i) {
    peer& owner = *events[i].owner;
    if (events[i].kind == watch::ROOM) {
      flush(owner, owner.mgmt);
      flush(owner, owner.data);
    } else if (!held) {
      owner.has_ended = ended = true;
    }
  }
  return ended;
}

// --- open requests ---

void roster::fail(peer& requester, const open_request& request, const char* reason) {
  requester.open.close(request.from, request.to, request.msg_id);
  send(requester, requester.data, failure_of(request, reason), nullptr);
}

template <typename Predicate>
void roster::fail_all(Predicate is_meant, const char* reason) {
  for (const auto& entry : m_peers) {
    peer& requester = *entry.second;
    for (open_request request; !requester.is_gone && requester.open.take_if(is_meant, request);)
      fail(requester, request, reason);
  }
}

void roster::fail_all_to(std::uint32_t siid, const char* reason) {
  fail_all([siid](const open_request& request) { return request.to == siid; }, reason);
}

// --- the end of a component ---

bool roster::is_unreachable(const peer& of) const {
  const sockaddr_un address = socket_address(of.mgmt_path);
  return connect(m_probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
         (errno == ECONNREFUSED || errno == ENOENT);
}

void roster::end_processes() {
  for (const auto& entry : m_peers) {
    peer& of = *entry.second;
    if (!of.has_ended) continue;
    if (is_unreachable(of)) {
      give_up(of, "its process ended");
    } else {
      of.pid = 0;  // a child of it goes on with its sockets
      of.has_ended = false;
      m_watch.remove(of.process.get());
    }
  }
}

void roster::give_up(peer& gone, const char* reason) {
  if (gone.is_gone) return;
  gone.is_gone = true;
  ++m_gone;
  m_report.event("%s (pid %d) is gone: %s", gone.name.c_str(), gone.pid, reason);
}

void roster::give_up_unreachable() {
  for (const auto& entry : m_peers)
    if (is_unreachable(*entry.second)) give_up(*entry.second, "it does not exist any more");
}

// An answer to a request of a component that is forgotten may find another one gone.
unsigned int roster::forget_gone() {
  unsigned int forgotten = 0;
  for (; m_gone > 0; ++forgotten, --m_gone) {
    const auto gone =
        std::find_if(m_peers.begin(), m_peers.end(), [](const auto& each) { return each.second->is_gone; });
    std::unique_ptr<peer> owned = std::move(gone->second);
    m_peers.erase(gone);
    forget(std::move(owned));
  }
  return forgotten;
}

void roster::forget(std::unique_ptr<peer> gone) {
  m_by_data_path.erase(gone->data_path);
  release(*gone);
}

// Who waits for an answer of the component gets an error.
void roster::release(peer& gone) {
  answer_queue(gone);
  fail_all([this, &gone](const open_request& request) { return is_asked(gone, request); },
           "the component is gone");
  m_services.forget(gone);
}

// Whether only this component could answer: what goes to all subscribers of a signal may be answered by
// another one, and what it withdrew is answered.
bool roster::is_asked(const peer& gone, const open_request& request) const {
  const endpoint* asked = gone.siids.count(request.to) == 0 ? nullptr : m_services.find(request.to);
  return asked != nullptr && asked->role != endpoint::SUBSCRIBERS;
}

// What the component has not even read.
void roster::answer_queue(peer& gone) {
  unsigned long lost = gone.data.take_lost() + gone.mgmt.take_lost();
  for (const outlet::waiting& each : gone.mgmt.take_queue())
    lost += each.messages.size();
  for (const outlet::waiting& each : gone.data.take_queue()) {
    lost += each.messages.size();
    for (const datagram& bytes : each.messages) {
      const KXmessage message = message_of(bytes.data(), bytes.size());
      const open_request request = request_of(message);
      if (message.m_header->msg_type != MSG_REQ || !is_asked(gone, request)) continue;
      const endpoint* asking = m_services.find(request.from);
      peer* const requester = asking == nullptr ? nullptr : asking->holder();
      if (requester != nullptr) fail(*requester, request, "the component is gone");
    }
  }
  if (lost > 0) m_report.problem("%lu messages to %s are lost", lost, gone.name.c_str());
}
