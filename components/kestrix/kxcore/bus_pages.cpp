#include "bus_pages.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "socket_address.h"

namespace {

constexpr int more_position = 6;  // in a page, of the value behind the tag: u generation, b more

std::string text(std::string_view value) { return std::string(value); }
auto number(std::uint64_t value) { return static_cast<unsigned long long>(value); }
auto small(std::size_t value) { return static_cast<unsigned int>(value); }

bool append(KXmessage& page, const KXmessage& row) {
  if (page.datagram_size() + row.size > buffer_t::capacity) return false;
  std::memcpy(page.data + page.offset + page.size, row.data + row.offset, static_cast<std::size_t>(row.size));
  page.incr_size(row.size);
  return true;
}

unsigned int services_of(const directory& services, const peer& owner) {
  return small(std::count_if(owner.siids.begin(), owner.siids.end(), [&](std::uint32_t siid) {
    return services.find(siid)->role == endpoint::STUB;
  }));
}

}  // namespace

// `write_row` writes one row, and returns its key.
template <typename Iterator, typename Write>
std::string bus_pages::write(KXmessage& page, Iterator first, Iterator end, Write write_row) const {
  page << m_report.events.generation();
  page << false;
  for (std::string last; first != end; ++first) {
    KXmessage row;
    std::string key = write_row(row, *first);
    if (!append(page, row)) {
      page.data[page.offset + more_position] = 1;
      return last;
    }
    last = std::move(key);
  }
  return {};
}

std::string bus_pages::components(KXmessage& page, const std::string& after) const {
  return write(page, m_peers.behind(bus_path + after), m_peers.end(),
               [this](KXmessage& row, const auto& entry) {
                 const peer& of = *entry.second;
                 const unsigned int offered = services_of(m_peers.services(), of);
                 row << text(of.label);
                 row << of.name;
                 row << static_cast<unsigned int>(of.pid);
                 row << static_cast<unsigned int>(of.uid);
                 row << number(of.since_ns);
                 row << of.mgmt_path;
                 row << of.data_path;
                 row << offered;
                 row << of.grants - offered;
                 return text(of.label);
               });
}

std::string bus_pages::services(KXmessage& page, const std::string& after) const {
  const directory& all = m_peers.services();
  return write(page, all.behind(after), all.end(), [](KXmessage& row, const auto& entry) {
    const service& of = *entry.second;
    row << of.name;
    row << of.description.kind;
    row << of.siid;
    row << of.subscribers_siid;
    row << (of.handler != nullptr ? "kxcore" : of.owner == nullptr ? std::string() : text(of.owner->label));
    row << of.uses();
    return of.name;
  });
}

std::string bus_pages::users(KXmessage& page, const service& of, const std::string& after) const {
  return write(page, of.users.upper_bound(bus_path + after), of.users.end(),
               [](KXmessage& row, const auto& user) {
                 row << text(user.first->label);
                 row << user.second.count;
                 return text(user.first->label);
               });
}

std::string bus_pages::component_counters(KXmessage& page, const std::string& after) const {
  return write(page, m_peers.behind(bus_path + after), m_peers.end(), [](KXmessage& row, const auto& entry) {
    const peer& of = *entry.second;
    row << text(of.label);
    row << number(of.sent);
    row << number(of.sent_bytes);
    row << number(of.data.total().sent);
    row << number(of.data.total().sent_bytes);
    row << number(of.of_its_own.refused);
    row << number(of.of_its_own.dropped);
    row << number(of.data.total().lost + of.mgmt.total().lost);
    row << small(of.data.queued() + of.mgmt.queued());
    row << small(of.data.total().highest_queue + of.mgmt.total().highest_queue);
    row << of.data.unread();
    row << of.grants;
    return text(of.label);
  });
}

std::string bus_pages::service_counters(KXmessage& page, const std::string& after) const {
  const directory& all = m_peers.services();
  return write(page, all.behind(after), all.end(), [](KXmessage& row, const auto& entry) {
    const service& of = *entry.second;
    row << of.name;
    for (const msg_type_e type : {MSG_REQ, MSG_RSP, MSG_ERR, MSG_SIG})
      row << number(of.passed[type]);
    return of.name;
  });
}

std::string bus_pages::reasons(KXmessage& page, const tally& of, const std::string& after) const {
  return write(page, of.reasons.upper_bound(after), of.reasons.end(), [](KXmessage& row, const auto& reason) {
    row << reason.first;
    row << number(reason.second);
    return reason.first;
  });
}
