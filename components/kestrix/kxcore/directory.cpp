#include "directory.h"

#include <utility>

std::uint32_t mid_ranges::take() {
  if (m_free.size() > quarantine || m_next == last) {
    const std::uint32_t first = m_free.front();
    m_free.pop_front();
    return first;
  }
  return std::exchange(m_next, m_next + size);
}

std::shared_ptr<service> directory::find_offered(const std::string& name) const {
  const auto entry = m_services.find(name);
  return entry != m_services.end() && entry->second->owner != nullptr ? entry->second : nullptr;
}

const endpoint* directory::find(std::uint32_t siid) const {
  const auto entry = m_endpoints.find(siid);
  return entry == m_endpoints.end() ? nullptr : &entry->second;
}

std::uint32_t directory::take_siid() {
  for (;;) {
    const std::uint32_t siid = m_next_siid;
    m_next_siid = siid == last_siid ? first_siid : siid + 1;
    if (m_endpoints.count(siid) == 0) return siid;
  }
}

std::uint32_t directory::offer(peer& owner, const std::string& name, bool is_signal) {
  std::shared_ptr<service>& entry = m_services[name];
  if (entry == nullptr || entry->is_signal != is_signal ||
      (!is_signal && entry->last_owner == owner.serial)) {
    entry = std::make_shared<service>();
    entry->name = name;
    entry->is_signal = is_signal;
    entry->siid = take_siid();
    m_endpoints[entry->siid] = {endpoint::STUB, entry, nullptr, 0};
    if (is_signal) {
      entry->subscribers_siid = take_siid();
      m_endpoints[entry->subscribers_siid] = {endpoint::SUBSCRIBERS, entry, nullptr, 0};
    }
  }
  entry->owner = &owner;
  entry->last_owner = owner.serial;
  owner.siids.insert(entry->siid);
  ++owner.grants;
  return entry->siid;
}

directory::grant directory::subscribe(peer& user, const std::shared_ptr<service>& wanted) {
  std::uint32_t siid = wanted->subscribers_siid;
  std::uint32_t mid_first = 0;
  if (wanted->is_signal) {
    mid_first = join(wanted->subscribers[&user]);
  } else {
    siid = take_siid();
    mid_first = m_mids.take();
    m_endpoints[siid] = {endpoint::PROXY, wanted, &user, mid_first};
    ++wanted->proxies;
  }
  user.siids.insert(siid);
  ++user.grants;
  return {siid, wanted->siid, mid_first, mid_first + mid_ranges::size};
}

std::uint32_t directory::join(subscriptions& of) {
  if (of.ranges.size() == of.count) {
    of.ranges.push_back(m_mids.take());
  } else {
    of.ranges.push_back(of.ranges.front());
    of.ranges.pop_front();
  }
  ++of.count;
  return of.ranges.back();
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
  if (is_signal) {
    const auto subscriber = used->subscribers.find(&holder);
    if (--subscriber->second.count > 0) return true;
    for (const std::uint32_t mid_first : subscriber->second.ranges)
      m_mids.give_back(mid_first);
    used->subscribers.erase(subscriber);
  } else {
    m_mids.give_back(entry->mid_first);
    m_endpoints.erase(siid);
    --used->proxies;
  }
  holder.siids.erase(siid);
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
  if (released->owner != nullptr || released->proxies > 0 || !released->subscribers.empty()) return;
  m_endpoints.erase(released->siid);
  if (released->is_signal) m_endpoints.erase(released->subscribers_siid);
  const auto entry = m_services.find(released->name);
  if (entry != m_services.end() && entry->second == released) m_services.erase(entry);
}
