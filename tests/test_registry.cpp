#include "component_test.h"

class registry : public component {
 protected:
  struct connection : stub_probe {
    connection(KXcomponent* owner, char called, interface_type_e type) : stub_probe(owner), name(called) {
      m_siid = 9;
      m_interface_type = type;
    }
    const char name;
  };
  ~registry() override { c.m_connections.clear(); }

  // How many are bound to each siid, and the listed ones, by name.
  std::string state() const {
    std::string text;
    for (const auto& [siid, bound] : c.m_siid_map)
      text += std::to_string(siid) + ":" + std::to_string(bound->size()) + " ";
    for (const KXconnection* const each : c.m_connections)
      text += static_cast<const connection*>(each)->name;
    return text;
  }
  std::string with(connection& which) {
    c.bind_siid(which.m_siid, &which);
    return state();
  }
  std::string without(connection& which) { return c.remove_connection(&which), state(); }

  connection a{&c, 'a', KXconnection::SGNL}, b{&c, 'b', KXconnection::SGNL}, s{&c, 's', KXconnection::SYNC};
};

TEST_F(registry, keeps_a_siid_as_long_as_a_signal_connection_has_it_and_forgets_one_entry_at_a_time) {
  with(a), with(b);
  EXPECT_EQ("9:2 aba", with(a));
  EXPECT_EQ("9:1 ba", without(a));
  EXPECT_EQ("9:1 b", without(a));
  EXPECT_EQ("", without(b));
}

TEST_F(registry, lists_a_connection_without_a_siid_and_maps_it_nowhere) {
  s.m_siid = no_siid;
  EXPECT_EQ("s", with(s));
  EXPECT_EQ("", without(s));
  EXPECT_FALSE(logged("[ERROR]"));
}

TEST_F(registry, unlists_a_connection_whose_siid_was_never_bound) {
  with(s);
  s.m_siid = 77;
  EXPECT_EQ("9:1 ", without(s));
  EXPECT_TRUE(logged("no service with siid [77] found"));
  s.m_siid = 9;
  clear_lines();
  EXPECT_EQ("", without(s));
  EXPECT_FALSE(logged("erased connection for siid")) << "it is not listed any more";
  c.remove_connection(nullptr);
}
