// What the rules of the bus let happen between three members: who is registered, what they hold, and what is
// to arrive at them. Of what the core may have had no room for, or may have forgotten, nothing is sure.
#ifndef TESTS_FUZZ_CORE_MODEL_H
#define TESTS_FUZZ_CORE_MODEL_H

#include "datagram.h"
#include "members.h"

constexpr unsigned int remembered = 256;          // requests of a member
constexpr unsigned int max_answers = 512;         // to strangers, in an interval
constexpr std::size_t sure_backlog = 120 * 1024;  // behind less than this there is room in the core's queue

enum verdict_e { NO, UNSURE, YES };

class core_model {
 public:
  member members[3] = {member(&network::receivers[0]), member(&network::receivers[2]),
                       member(&network::receivers[4])};
  std::size_t registered = 0;  // members
  unsigned int answers = 0;    // to strangers, in this interval
  holdings held;

  // --- members ---

  void begin(member& who, const sender& from) {
    end(who);
    ++registered;
    who.registration = ++m_registrations;
    who.is_reachable = true;
    who.registered = {from.path, from.pid, who.mgmt.owner};
    who.inodes[0] = who.mgmt.inode;
    who.inodes[1] = who.data.inode;
  }

  void end(member& who) {
    if (who.registration == 0) return;
    --registered;
    who.registration = who.grants = who.requests = 0;
    who.is_reachable = who.must_go = false;
    who.backlog = 0;
    who.open.clear();
    who.withdrawn.clear();
    for (message& each : who.awaited)
      each.is_sure = false;
    fail_all([this, &who](std::uint32_t siid) {
      const holding* const asked = held.find_siid(who, siid);
      return asked != nullptr && asked->role != endpoint::SUBSCRIBERS;
    });
    held.drop([&who](const holding& each) { return each.by == &who; });
  }

  // Whether a stranger gets an answer: so many do in an interval, at sockets of their own.
  bool answers_stranger(const network::receiver& at, const sender& from) {
    return ++answers <= max_answers && at.life != 0 && at.count() < network::max_unread &&
           (at.owner == from.uid || !from.is_known());
  }

  // --- what they hold ---

  // Whether the core must carry a demand out.
  bool is_granted(const member& who, const sender& from, const demand& asked) const {
    const auto [kind, of_signal] = facts_of(asked.cmd);
    if (asked.type != MSG_REQ && (asked.type != MSG_SIG || kind != WITHDRAWAL)) return false;
    if (kind == REGISTRATION) return may_register(who, from);
    if (!who.is(from) || kind == OTHER) return false;
    if (asked.cmd == CMD_UNREG_COMPONENT) return true;
    if (kind == WITHDRAWAL) {
      const holding* const given = held.find_siid(who, asked.siid);
      const bool of_stub = asked.cmd == CMD_UNREG_FUNCTION || asked.cmd == CMD_UNREG_SIGNAL;
      return given != nullptr && given->is_signal == of_signal && (given->role == endpoint::STUB) == of_stub;
    }
    if (who.grants == peer::max_grants) return false;
    const holding* const offered = held.find_offered(asked.name);
    if (kind == SUBSCRIPTION) return offered != nullptr && offered->is_signal == of_signal;
    const bool is_free = offered == nullptr || (offered->by != &who && !offered->by->is_reachable);
    return is_free && asked.name != reserved_name;
  }

  void give_back(member& from, std::uint32_t siid) {
    const holding given = *held.find_siid(from, siid);
    if (!held.give_back(from, siid)) return;
    if (given.role != endpoint::SUBSCRIBERS) fail_all([siid](std::uint32_t asked) { return asked == siid; });
    if (given.role == endpoint::STUB && !given.is_signal) from.withdrawn.push_back(siid);
    held.drop([&given](const holding& each) { return each.by == given.by && each.siid == given.siid; });
  }

  // --- what they send and get ---

  void send(member& by, const sender& from, message sent) {
    if (!by.is(from)) {
      if (sent.type == MSG_REQ && answers_stranger(by.data, from)) by.awaited.push_back(failure_of(sent));
      return;
    }
    sent.by = by.registration;
    sent.number = by.requests + 1;
    const verdict_e is_taken = route(by, sent);
    if (sent.type != MSG_REQ || is_taken == YES) return;
    sent.is_sure = false;
    if (close(by, sent) != NO && is_taken == UNSURE) by.open.push_back(sent);
    deliver(by, failure_of(sent), is_taken == NO);
  }

  // Says when this may not arrive, or not yet.
  void arrive(member& at, const network::unread_datagram& unread) {
    const KXmessage head = message_of(unread.bytes, std::min(unread.size, std::size_t{32}));
    const auto [to, from, type, cmd, id] = *head.m_header;
    message arrived = {ntohl(to), ntohl(from), type, cmd, ntohl(id)};
    if (head.data[header_size] != TAG_STRING) {
      arrived.size = unread.size;
      head >> arrived.index;
    }
    const auto found = std::find_if(at.awaited.begin(), at.awaited.end(),
                                    [&arrived](const message& each) { return each.is(arrived); });
    REQUIRE(found != at.awaited.end());
    REQUIRE(std::none_of(at.awaited.begin(), found, [&found](const message& each) {
      return each.is_sure && each.by == found->by && each.by != 0;
    }));
    at.awaited.erase(found);
  }

 private:
  // The sockets are its user's, and nobody else's.
  bool may_register(const member& who, const sender& from) const {
    const uid_t uid = from.is_known() ? from.uid : who.mgmt.owner;
    if (who.mgmt.life == 0 || who.mgmt.owner != uid || who.data.owner != uid) return false;
    if (who.registration != 0 && who.registered.uid != from.uid && lives(who.registered.pid)) return false;
    for (const member& each : members)
      for (const ino_t inode : each.inodes)
        if (&each != &who && each.registration != 0 && (inode == who.mgmt.inode || inode == who.data.inode))
          return false;
    return true;
  }

  // Whether a message goes to anybody, and so does not fail.
  verdict_e route(member& by, const message& sent) {
    const holding* const source = held.find_siid(by, sent.from);
    const holding* const target = held.find([&sent](const holding& each) { return each.siid == sent.to; });
    if (source == nullptr || target == nullptr) return NO;
    const bool is_at_stub = target->role == endpoint::STUB;
    if (!is_at_stub && target->service != sent.from) return NO;
    if (target->role == endpoint::SUBSCRIBERS ||
        (source == target && source->is_signal && sent.type == MSG_SIG))
      return fan_out(by, sent);

    member& to = *target->by;
    const bool is_answer = sent.type == MSG_RSP || sent.type == MSG_ERR;
    const bool could_mislead = &to != &by && held.find([&](const holding& each) {
      return each.by == &to && each.siid != sent.to && each.has(sent.id);
    }) != nullptr;
    const bool must_be_awaited = could_mislead || (is_answer && is_at_stub);
    const verdict_e is_awaited = is_answer || !is_at_stub ? close(to, failure_of(sent)) : NO;
    if (must_be_awaited && is_awaited == NO) return NO;
    open(by, sent);
    return deliver(to, sent, !must_be_awaited || is_awaited == YES);
  }

  // To one of the subscribers goes what answers it, to the others what could not be taken for an answer
  // there.
  verdict_e fan_out(member& by, message sent) {
    const auto subscribes = [&sent](const holding& each) {
      return each.role == endpoint::SUBSCRIBERS && each.service == sent.from;
    };
    const holding* const range = held.find([&sent](const holding& each) { return each.has(sent.id); });
    const bool is_signal = sent.type == MSG_SIG;
    const std::uint32_t id = sent.id;
    if (range != nullptr && subscribes(*range) && !is_signal) {
      close(*range->by, failure_of(sent));
      return deliver(*range->by, sent, true);
    }
    open(by, sent);
    verdict_e is_taken = NO;
    for (member& to : members) {
      const holding* const subscribed =
          held.find([&](const holding& each) { return each.by == &to && subscribes(each); });
      const bool is_its_own = range != nullptr && range->by == &to && &by != &to;
      if (subscribed == nullptr || (is_its_own && !is_signal)) continue;
      sent.to = subscribed->siid;
      sent.id = is_its_own ? 0 : id;
      is_taken = std::max(is_taken, deliver(to, sent, true));
    }
    return is_taken;
  }

  verdict_e deliver(member& to, message sent, bool is_sure) {
    if (!to.is_reachable) {
      to.must_go = to.must_go || is_sure;
      return is_sure ? NO : UNSURE;
    }
    sent.is_sure = is_sure && to.backlog < sure_backlog;
    to.backlog += sent.size + 300;
    to.awaited.push_back(sent);
    return sent.is_sure ? YES : UNSURE;
  }

  static message failure_of(const message& asked) {
    return {asked.from, asked.to, MSG_ERR, asked.cmd, asked.id};
  }

  static void open(member& by, const message& sent) {
    if (sent.type != MSG_REQ) return;
    ++by.requests;
    by.open.push_back(sent);
  }

  static verdict_e is_open(const member& of, const message& asked) {
    return asked.is_sure && of.requests - asked.number < remembered ? YES : UNSURE;
  }

  // Closes a request; whether it was open.
  static verdict_e close(member& of, const message& asked) {
    const auto found = std::find_if(of.open.begin(), of.open.end(), [&asked](const message& each) {
      return each.from == asked.from && each.to == asked.to && each.id == asked.id;
    });
    if (found == of.open.end()) return NO;
    const verdict_e was_open = is_open(of, *found);
    of.open.erase(found);
    return was_open;
  }

  // The core answers in place of those that are asked.
  template <typename Predicate>
  void fail_all(Predicate is_meant) {
    for (member& by : members) {
      const auto fail = [&](const message& each) {
        if (is_meant(each.to)) deliver(by, failure_of(each), is_open(by, each) == YES);
        return is_meant(each.to);
      };
      by.open.erase(std::remove_if(by.open.begin(), by.open.end(), fail), by.open.end());
    }
  }

  unsigned int m_registrations = 0;
};

#endif
