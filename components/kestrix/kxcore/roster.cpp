#include "roster.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include "clock.h"
#include "datagram.h"
#include "management.h"
#include "request.h"

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

bool roster::watch_for(peer& owner, int fd, watch::kind_e kind) {
  if (m_watch.add(owner, fd, kind)) return true;
  m_report.problem("cannot watch a descriptor of %s: %s", owner.name.c_str(), strerror(errno));
  return false;
}

// --- the way to a component ---

outlet::result_e roster::send(peer& to, outlet& way, const KXmessage& message, const peer* from) {
  if (to.is_gone) return outlet::GONE;
  const bool had_queue = way.has_queue();
  // Its receiver may have answered before the time behind it could be read.
  const std::uint64_t begun_ns = m_report.monitors.is_watched() ? now_ns(CLOCK_REALTIME) : 0;
  const outlet::result_e result =
      way.send(message.m_header, static_cast<std::size_t>(message.datagram_size()),
               from == nullptr ? 0 : from->serial, from == nullptr ? getuid() : from->uid);
  if (m_report.monitors.is_watched()) show_sent(to, result, message, from, begun_ns);
  if (result == outlet::QUEUED && !had_queue) {
    m_report.events.note(EVENT_DOES_NOT_READ, to.label);
    if (!watch_for(to, way.fd(), watch::ROOM)) give_up(to, "what it does not read cannot be sent later");
  }
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
  outlet::delivery show;
  if (m_report.monitors.is_watched()) {
    show = [this, &to](const datagram& message, unsigned long from) { show_delivered(to, message, from); };
  }
  const outlet::result_e result = way.flush(show);
  if (result == outlet::GONE) return give_up(to, "its socket is gone");
  if (result != outlet::SENT) return;
  m_watch.remove(way.fd());
  const unsigned long lost = way.take_lost();
  if (lost > 0) m_report.problem("%s reads again: %lu messages to it were lost", to.name.c_str(), lost);
  m_report.events.note(EVENT_READS_AGAIN, to.label, {},
                       lost == 0 ? std::string() : std::to_string(lost) + " messages to it were lost");
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

// --- what monitors see ---

void roster::show(record_event_e event, const peer* from, std::string_view receiver, const KXmessage& message,
                  std::string_view reason, std::uint64_t time_ns) {
  if (!m_report.monitors.is_watched()) return;
  record about = {event};
  about.sender = from == nullptr ? "kxcore" : from->label;
  about.receiver = receiver;
  about.service = service_of(message);
  about.reason = reason;
  about.time_ns = time_ns;
  about.flags = is_management(message) ? record_is_management : 0;
  about.pid = from == nullptr ? getpid() : from->pid;
  about.sent_ns = from == nullptr ? 0 : m_report.monitors.last_arrival().sent_ns;
  m_report.monitors.show(about, message.m_header, static_cast<std::size_t>(message.datagram_size()));
}

void roster::show_sent(const peer& to, outlet::result_e result, const KXmessage& message, const peer* from,
                       std::uint64_t begun_ns) {
  switch (result) {
    case outlet::SENT:
      return show(RECORD_SENT, from, to.label, message, {}, begun_ns);
    case outlet::QUEUED:
      return show(RECORD_QUEUED, from, to.label, message);
    case outlet::FULL:
      return show(RECORD_DROPPED, from, to.label, message, "the component does not read, its queue is full");
    case outlet::GONE:
      return show(RECORD_DROPPED, from, to.label, message, "the component is gone");
  }
}

void roster::show_delivered(const peer& to, const datagram& message, unsigned long sender) {
  const peer* from = nullptr;
  for_each([&from, sender](const peer& each) { from = each.serial == sender ? &each : from; });
  m_report.monitors.arrived({});
  show(RECORD_DELIVERED, from, to.label, message_of(message.data(), message.size()));
}

std::string_view roster::service_of(const KXmessage& message) const {
  for (const std::uint32_t siid : {message.m_header->dst_siid, message.m_header->src_siid})
    if (const endpoint* const found = m_services.find(ntohl(siid))) return found->of->name;
  return {};
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

bool roster::is_unreachable(const peer& of) const { return is_closed(of.mgmt_file); }

bool roster::is_closed(const socket_file& file) const {
  const sockaddr_un address = file.address();
  return connect(m_probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
         errno == ECONNREFUSED;
}

void roster::end_processes() {
  for (const auto& entry : m_peers) {
    peer& of = *entry.second;
    if (!of.has_ended) continue;
    if (is_unreachable(of)) {
      give_up(of, "its process ended");
    } else {
      of.has_ended = false;  // a child of it goes on with its sockets
      m_watch.remove(of.process.get());
    }
  }
}

void roster::give_up(peer& gone, const char* reason) {
  if (gone.is_gone) return;
  gone.is_gone = true;
  ++m_gone;
  m_report.event("%s (pid %d) is gone: %s", gone.name.c_str(), gone.pid, reason);
  m_report.events.note(EVENT_GONE, gone.label, {}, reason);
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
  report_lost(*gone);
  release(*gone);
}

// Who waits for an answer of the component gets an error. What goes to all subscribers of a signal may be
// answered by another one.
void roster::release(peer& gone) {
  const auto is_asked = [this, &gone](const open_request& request) {
    const endpoint* asked = gone.siids.count(request.to) == 0 ? nullptr : m_services.find(request.to);
    return asked != nullptr && asked->role != endpoint::SUBSCRIBERS;
  };
  constexpr char reason[] = "the component is gone";
  fail_all(is_asked, reason);
  for (const std::uint32_t siid : gone.siids) {
    const endpoint& held = *m_services.find(siid);
    const bool is_shared = held.role == endpoint::SUBSCRIBERS;
    for (unsigned int left = is_shared ? held.of->users.at(&gone).count : 1; left > 0; --left)
      m_report.events.note(held.role == endpoint::STUB ? EVENT_WITHDRAWN : EVENT_UNSUBSCRIBED, gone.label,
                           held.of->name, reason);
  }
  m_services.forget(gone);
}

void roster::report_lost(peer& gone) {
  unsigned long lost = gone.data.take_lost() + gone.mgmt.take_lost();
  for (outlet* const way : {&gone.data, &gone.mgmt})
    for (const outlet::waiting& each : way->take_queue())
      lost += each.messages.size();
  if (lost > 0) m_report.problem("%lu messages to %s were not read", lost, gone.name.c_str());
}
