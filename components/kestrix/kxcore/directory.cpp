#include "directory.h"

#include <algorithm>
#include <new>
#include <utility>

#include "KXconnection.h"

std::uint32_t mid_ranges::take(const holder& by) {
  std::uint32_t first = m_next;
  if (m_free.size() > quarantine || m_next == last) {
    first = m_free.front();
    m_free.pop_front();
  } else {
    m_holders.emplace_back();
    m_next += size;
  }
  m_holders[first / size - 1] = by;
  return first;
}

void mid_ranges::give_back(std::uint32_t first) {
  m_holders[first / size - 1] = {};
  try {
    m_free.push_back(first);
  } catch (const std::bad_alloc&) {  // one of half a million is lost
  }
}

mid_ranges::holder mid_ranges::holder_of(std::uint32_t msg_id) const {
  return msg_id >= size && msg_id < m_next ? m_holders[msg_id / size - 1] : holder{};
}

unsigned int service::uses() const {
  unsigned int count = 0;
  for (const auto& user : users)
    count += user.second.count;
  return count;
}

std::shared_ptr<service> directory::find_offered(const std::string& name) const {
  const auto entry = m_services.find(name);
  return entry != m_services.end() && entry->second->is_offered() ? entry->second : nullptr;
}

const endpoint* directory::find(std::uint32_t siid) const {
  const auto entry = m_endpoints.find(siid);
  return entry == m_endpoints.end() ? nullptr : &entry->second;
}

std::string directory::name_of(std::uint32_t siid) const {
  const endpoint* const found = find(siid);
  return found == nullptr ? std::string() : found->of->name;
}

std::uint32_t directory::take_siid() {
  for (;;) {
    const std::uint32_t siid = m_next_siid;
    m_next_siid = siid == last_siid ? first_siid : siid + 1;
    if (m_endpoints.count(siid) == 0) return siid;
  }
}

std::uint32_t directory::offer(peer& owner, const std::string& name, bool is_signal) {
  std::shared_ptr<service> offered = find_kept(owner, name, is_signal);
  if (offered == nullptr) offered = create(name, is_signal);
  try {
    owner.siids.insert(offered->siid);
  } catch (...) {
    release_if_unused(offered);
    throw;
  }
  offered->owner = &owner;
  offered->last_owner = owner.serial;
  ++owner.grants;
  return offered->siid;
}

std::shared_ptr<service> directory::offer_own(const std::string& name, bool is_signal,
                                              service_handler& handler) {
  const std::uint32_t next = std::exchange(m_next_siid, last_siid - own_siids);
  std::shared_ptr<service> offered = create(name, is_signal);
  m_next_siid = next;
  offered->handler = &handler;
  offered->description.kind = is_signal ? KXconnection::SGNL : KXconnection::SYNC;
  return offered;
}

std::shared_ptr<service> directory::find_kept(const peer& owner, const std::string& name,
                                              bool is_signal) const {
  const auto entry = m_services.find(name);
  if (entry == m_services.end() || entry->second->is_signal != is_signal) return nullptr;
  return is_signal || entry->second->last_owner != owner.serial ? entry->second : nullptr;
}

std::shared_ptr<service> directory::create(const std::string& name, bool is_signal) {
  auto created = std::make_shared<service>();
  created->name = name;
  created->is_signal = is_signal;
  created->siid = take_siid();
  try {
    m_endpoints[created->siid] = {endpoint::STUB, created, nullptr, 0};
    if (is_signal) {
      created->subscribers_siid = take_siid();
      m_endpoints[created->subscribers_siid] = {endpoint::SUBSCRIBERS, created, nullptr, 0};
    }
    m_services[name] = created;
  } catch (...) {
    release_if_unused(created);
    throw;
  }
  return created;
}

directory::grant directory::subscribe(peer& user, const std::shared_ptr<service>& wanted) {
  const grant granted =
      wanted->is_signal ? subscribe_signal(user, *wanted) : subscribe_function(user, wanted);
  ++user.grants;
  return granted;
}

directory::grant directory::subscribe_function(peer& user, const std::shared_ptr<service>& wanted) {
  const std::uint32_t siid = take_siid();
  const std::uint32_t mid_first = m_mids.take({&user, siid});
  try {
    m_endpoints[siid] = {endpoint::PROXY, wanted, &user, mid_first};
    user.siids.insert(siid);
    ++wanted->users[&user].count;
  } catch (...) {
    m_endpoints.erase(siid);
    user.siids.erase(siid);
    m_mids.give_back(mid_first);
    throw;
  }
  return {siid, wanted->siid, mid_first, mid_first + mid_ranges::size};
}

directory::grant directory::subscribe_signal(peer& user, service& wanted) {
  const std::uint32_t siid = wanted.subscribers_siid;
  subscriptions& of = wanted.users[&user];
  try {
    user.siids.insert(siid);
    if (of.ranges.size() == of.count) {
      of.ranges.emplace_back();
      of.ranges.back() = m_mids.take({&user, siid});
    } else {
      std::rotate(of.ranges.begin(), of.ranges.begin() + 1, of.ranges.end());
    }
  } catch (...) {
    if (of.ranges.size() > of.count) of.ranges.pop_back();
    if (of.count == 0) leave(user, wanted);
    throw;
  }
  ++of.count;
  const std::uint32_t mid_first = of.ranges.back();
  return {siid, wanted.siid, mid_first, mid_first + mid_ranges::size};
}

// Ends the part that a component has in a signal.
void directory::leave(peer& user, service& used) {
  for (const std::uint32_t mid_first : used.users.at(&user).ranges)
    m_mids.give_back(mid_first);
  user.siids.erase(used.subscribers_siid);
  used.users.erase(&user);
}

bool directory::withdraw(peer& holder, std::uint32_t siid, bool is_signal) {
  const endpoint* entry = find(siid);
  if (entry == nullptr || entry->role != endpoint::STUB || entry->of->owner != &holder ||
      entry->of->is_signal != is_signal) {
    return false;
  }
  const std::shared_ptr<service> withdrawn = entry->of;
  withdrawn->owner = nullptr;
  holder.siids.erase(siid);
  --holder.grants;
  release_if_unused(withdrawn);
  return true;
}

bool directory::unsubscribe(peer& holder, std::uint32_t siid, bool is_signal) {
  const endpoint* entry = find(siid);
  const endpoint::role_e role = is_signal ? endpoint::SUBSCRIBERS : endpoint::PROXY;
  if (entry == nullptr || entry->role != role || !owns(holder, siid)) return false;
  const std::shared_ptr<service> used = entry->of;
  --holder.grants;
  const bool is_last = --used->users.at(&holder).count == 0;
  if (!is_signal) {
    m_mids.give_back(entry->mid_first);
    m_endpoints.erase(siid);
    holder.siids.erase(siid);
    if (is_last) used->users.erase(&holder);
  } else if (is_last) {
    leave(holder, *used);
  }
  release_if_unused(used);
  return true;
}

void directory::forget(peer& holder) {
  while (!holder.siids.empty()) {
    const std::uint32_t siid = *holder.siids.begin();
    const endpoint& entry = m_endpoints.at(siid);
    if (entry.role == endpoint::STUB) {
      withdraw(holder, siid, entry.of->is_signal);
    } else {
      unsubscribe(holder, siid, entry.role == endpoint::SUBSCRIBERS);
    }
  }
}

void directory::release_if_unused(const std::shared_ptr<service>& released) {
  if (released->is_offered() || !released->users.empty()) return;
  m_endpoints.erase(released->siid);
  if (released->is_signal) m_endpoints.erase(released->subscribers_siid);
  const auto entry = m_services.find(released->name);
  if (entry != m_services.end() && entry->second == released) m_services.erase(entry);
}
