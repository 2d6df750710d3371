// The core, in this process, between components made of raw sockets: the input chooses who sends what, who
// reads, and who goes and comes.
#include <arpa/inet.h>

#include <map>
#include <memory>
#include <set>

#include "feed.h"
#include "core_probe.h"

namespace {

constexpr std::size_t members = 4;

class world {
 public:
  explicit world(feed& input) : m_input(input) {
    for (std::size_t i = 0; i < members; ++i) {
      begin(i);
      if (i % 2 == 0) m_members[i]->manage(CMD_REG_COMPONENT, "", 0);
    }
  }

  void live() {
    while (!m_input.done()) {
      act();
      m_core.serve();
      for (std::size_t i = 0; i < members; ++i)
        note_grants(i);
    }
    for (std::size_t i = 0; i < members; ++i) {
      check_sources(i);
      m_core.serve();
      note_grants(i);
      m_members[i]->manage(CMD_REG_COMPONENT, "", 0);
      m_core.serve();
      REQUIRE(note_grants(i) == MSG_RSP);  // whatever happened, a component can register
    }
  }

 private:
  void begin(std::size_t who) {
    m_members[who] = std::make_unique<raw_component>(std::string(1, static_cast<char>('a' + who)));
  }

  void act() {
    const std::size_t who = m_input.below(members);
    const std::size_t what = m_input.below(8);
    if (what == 0) return send_raw(*m_members[who]);
    if (what == 1) return check_sources(who);
    if (what == 2 && m_input.below(4) == 0) {
      m_members[who].reset();
      if (m_input.below(2) == 0) m_core.serve();
      begin(who);
    }
    if (what < 6) {
      const auto cmd = static_cast<mgmt_cmd_e>(m_input.below(13));
      const std::string service = "service " + std::to_string(m_input.below(3));
      const unsigned int number = cmd == CMD_REG_SIGNAL     ? 2u
                                  : cmd == CMD_REG_FUNCTION ? m_input.value<std::uint8_t>() & 1u
                                                            : siid();
      return m_members[who]->manage(cmd, service, static_cast<int>(number),
                                    static_cast<msg_type_e>(m_input.below(5)));
    }
    for (std::size_t times = 1 + m_input.below(4) * m_input.below(60); times > 0; --times)
      send_data(who);
  }

  void send_raw(const raw_component& from) {
    const bool mgmt = m_input.below(2) == 0;
    auto bytes = m_input.bytes(m_input.value<std::uint16_t>() % 2100);
    if (!mgmt && bytes.size() > 4) bytes[4] |= 0x80;  // a source that nobody was granted
    (m_input.below(8) == 0 || !mgmt ? from.data : from.mgmt)
        .send(mgmt ? fake_core::mgmt_path : fake_core::data_path, bytes);
  }

  // One of the siids that were granted, or any.
  unsigned int siid() {
    if (m_holders.empty() || m_input.below(16) == 0) return m_input.value<std::uint32_t>();
    auto entry = m_holders.begin();
    std::advance(entry, static_cast<long>(m_input.below(m_holders.size())));
    return entry->first;
  }

  // The sender's index is in the payload.
  void send_data(std::size_t who) {
    KXmessage message =
        make_message(siid(), siid(), static_cast<msg_type_e>(m_input.below(5)), 1, ++m_msg_id);
    message << static_cast<unsigned char>(who);
    message << std::string(m_input.below(2) * 2000, 'x');
    m_members[who]->data.send(fake_core::data_path, message);
    if (m_input.below(4) == 0) m_core.serve();
  }

  // Notes what the core granted; the type of its last reply.
  msg_type_e note_grants(std::size_t who) {
    msg_type_e last = MSG_NONE;
    for (;;) {
      const KXmessage reply = m_members[who]->mgmt.receive_message();
      const auto type = static_cast<msg_type_e>(reply.m_header->msg_type);
      if (type == MSG_NONE) return last;
      last = type;
      const std::uint8_t cmd = reply.m_header->cmd;
      const bool offers = cmd == CMD_REG_FUNCTION || cmd == CMD_REG_SIGNAL;
      if (type != MSG_RSP || (!offers && cmd != CMD_SUB_FUNCTION && cmd != CMD_SUB_SIGNAL)) continue;
      int granted = -1;
      reply >> granted;
      REQUIRE(granted > 1);
      m_holders[static_cast<unsigned int>(granted)].insert(who);
    }
  }

  // What arrives was sent by a holder of its source siid, or is the core's answer.
  void check_sources(std::size_t who) {
    const raw_socket& arrived = m_members[who]->data;
    for (auto bytes = arrived.receive(); !bytes.empty(); bytes = arrived.receive()) {
      REQUIRE(bytes.size() > sizeof(msg_header_t) + 1);
      const auto& header = *reinterpret_cast<const msg_header_t*>(bytes.data());
      const unsigned char tag = bytes[sizeof header];
      const unsigned char sender = bytes[sizeof header + 1];
      if (tag == TAG_STRING) continue;
      const unsigned int source = ntohl(header.src_siid);
      REQUIRE(m_holders[source].count(sender) == 1);
    }
  }

  feed& m_input;
  unsigned int m_msg_id = 0;
  std::map<unsigned int, std::set<std::size_t>> m_holders;  // of each siid that was granted
  std::unique_ptr<raw_component> m_members[members];
  core_probe m_core;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  feed input(bytes, size);
  seam::reset();
  seam::trace_level(input.below(16) == 0 ? 9 : 3);
  world(input).live();
  return 0;
}
