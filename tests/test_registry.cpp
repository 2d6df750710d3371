#include <set>

#include "component_test.h"

class registry : public component {
 protected:
  static constexpr auto SYNC = KXconnection::SYNC, ASYNC = KXconnection::ASYNC, SGNL = KXconnection::SGNL;

  struct connection : stub_probe {
    connection(KXcomponent* owner, interface_type_e type) : stub_probe(owner) {
      m_siid = 9;
      m_interface_type = type;
    }
  };
  ~registry() override { c.m_connections.clear(); }

  void bind(connection& which) { c.bind_siid(which.m_siid, &which); }

  // The bound ones of each siid, and the listed ones, by name.
  std::string state() const {
    const auto name = [this](const KXconnection* which) {
      return which == &a ? 'a' : which == &b ? 'b' : 's';
    };
    std::string text;
    for (const auto& [siid, bound] : c.m_siid_map) {
      std::set<char> names;
      for (const KXconnection* const each : *bound)
        names.insert(name(each));
      text += std::to_string(siid) + ":" + std::string(names.begin(), names.end()) + " ";
    }
    for (const KXconnection* const each : c.m_connections)
      text += name(each);
    return text;
  }
  std::string without(connection& which) { return c.remove_connection(&which), state(); }

  connection a{&c, SGNL}, b{&c, SGNL}, s{&c, SYNC};
};

TEST_F(registry, refuses_a_siid_that_is_taken_to_all_but_signals) {
  bind(s);
  for (const auto type : {SYNC, ASYNC}) {
    a.m_interface_type = type;
    EXPECT_THROW(bind(a), KXerror::error_e);
    EXPECT_EQ("9:s s", state()) << "nothing is changed";
  }
  EXPECT_TRUE(logged("(bind_siid) - service with siid [9] already present\n"));
  bind(b);
  EXPECT_EQ("9:bs sb", state());
}

TEST_F(registry, keeps_a_siid_as_long_as_a_signal_connection_has_it) {
  bind(a), bind(b);
  EXPECT_EQ("9:ab ab", state());
  EXPECT_EQ("9:b b", without(a));
  EXPECT_EQ("", without(b));
}

TEST_F(registry, lists_a_connection_without_a_siid_and_maps_it_nowhere) {
  s.m_siid = no_siid;
  bind(s);
  EXPECT_EQ("s", state());
  EXPECT_EQ("", without(s));
  EXPECT_FALSE(logged("[ERROR]"));
}

TEST_F(registry, removes_the_first_entry_of_a_connection_that_was_bound_twice) {
  bind(a), bind(b), bind(a);
  EXPECT_EQ("9:ab aba", state());
  EXPECT_EQ("9:b ba", without(a));
  EXPECT_EQ("9:b b", without(a));
}

TEST_F(registry, unlists_a_connection_whose_siid_was_never_bound) {
  bind(s);
  s.m_siid = 77;
  EXPECT_EQ("9:s ", without(s));
  EXPECT_TRUE(logged("no service with siid [77] found"));
  s.m_siid = 9;
  clear_lines();
  EXPECT_EQ("", without(s));
  EXPECT_FALSE(logged("erased connection for siid")) << "it is not listed any more";
  c.remove_connection(nullptr);
}

TEST_F(registry, hands_one_message_to_all_who_share_a_siid_as_each_leaves_it) {
  int sum = 0;
  for (connection* const each : {&a, &b}) {
    bind(*each);
    each->on_message = [&sum](KXmessage& shared) {
      int value = 0;
      shared >> value;
      sum = 10 * sum + value;
    };
  }
  message << 1, message << 2;
  c.deliver(message);
  EXPECT_EQ(12, sum);
}

TEST_F(registry, hands_a_message_for_nobody_to_nobody) {
  bind(s);
  s.on_message = [](KXmessage&) { ADD_FAILURE(); };
  message.m_header->dst_siid = 0;
  clear_lines();
  c.deliver(message);
  EXPECT_TRUE(lines().empty());
}
