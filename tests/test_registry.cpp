#include <set>

#include "component_test.h"

class registry : public component {
 protected:
  static constexpr auto SYNC = KXconnection::SYNC, ASYNC = KXconnection::ASYNC, SGNL = KXconnection::SGNL;

  struct connection : stub_probe {
    connection(KXcomponent* owner, char called, interface_type_e type) : stub_probe(owner), name(called) {
      m_siid = 9;
      m_interface_type = type;
    }
    const char name;
  };
  ~registry() override { c.m_connections.clear(); }

  // The bound ones of each siid, and the listed ones, by name.
  std::string state() const {
    const auto name_of = [](const KXconnection* which) {
      return static_cast<const connection*>(which)->name;
    };
    std::string text;
    for (const auto& [siid, bound] : c.m_siid_map) {
      std::set<char> names;
      for (const KXconnection* const each : *bound)
        names.insert(name_of(each));
      text += std::to_string(siid) + ":" + std::string(names.begin(), names.end()) + " ";
    }
    for (const KXconnection* const each : c.m_connections)
      text += name_of(each);
    return text;
  }
  std::string with(connection& which) {
    const std::string error = ended([&] { return c.bind_siid(which.m_siid, &which), ""; });
    return error + (error.empty() ? "" : " ") + state();
  }
  std::string without(connection& which) { return c.remove_connection(&which), state(); }

  connection a{&c, 'a', SGNL}, b{&c, 'b', SGNL}, s{&c, 's', SYNC};
};

TEST_F(registry, refuses_a_siid_that_is_taken_to_all_but_signals) {
  EXPECT_EQ("9:s s", with(s));
  for (const auto type : {SYNC, ASYNC}) {
    a.m_interface_type = type;
    EXPECT_EQ("error 1 9:s s", with(a)) << "nothing is changed";
  }
  EXPECT_EQ("9:bs sb", with(b));
}

TEST_F(registry, keeps_a_siid_as_long_as_a_signal_connection_has_it_and_forgets_one_entry_at_a_time) {
  with(a), with(b);
  EXPECT_EQ("9:ab aba", with(a));
  EXPECT_EQ("9:b ba", without(a));
  EXPECT_EQ("9:b b", without(a));
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
  EXPECT_EQ("9:s ", without(s));
  EXPECT_TRUE(logged("no service with siid [77] found"));
  s.m_siid = 9;
  clear_lines();
  EXPECT_EQ("", without(s));
  EXPECT_FALSE(logged("erased connection for siid")) << "it is not listed any more";
  c.remove_connection(nullptr);
}
