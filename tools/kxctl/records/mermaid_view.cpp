// A sequence diagram in the language of Mermaid.
#include "sequence.h"

namespace {

// What has a meaning of its own in Mermaid as a code.
std::string plain(const std::string& text) {
  std::string result;
  for (const char each : text) {
    const bool is_special = each == '#' || each == ';' || each == '<' || each == '>' || each == '%';
    result +=
        is_special ? "#" + std::to_string(static_cast<unsigned char>(each)) + ";" : std::string(1, each);
  }
  return result;
}

const char* line_of(arrow::kind_e kind) {
  switch (kind) {
    case arrow::REQUEST:
      return "->>";
    case arrow::SIGNAL:
      return "-)";
    case arrow::FAILURE:
      return "-x";
    default:
      return "-->>";
  }
}

class mermaid_view : public view {
 public:
  mermaid_view(std::ostream& to, names& known) : m_to(to), m_sequence(known) {}

  void show(const sight& seen) override { m_sequence.add(seen); }

  void finish() override {
    m_to << "sequenceDiagram\n";
    std::size_t number = 0;
    for (const std::string& each : m_sequence.participants())
      m_to << "  participant p" << number++ << " as " << plain(each) << '\n';
    for (const arrow& each : m_sequence.arrows())
      m_to << "  p" << each.from << line_of(each.kind) << 'p' << each.to << ": " << plain(each.label) << '\n';
  }

 private:
  std::ostream& m_to;
  sequence m_sequence;
};

}  // namespace

std::unique_ptr<view> make_mermaid_view(std::ostream& to, names& known) {
  return std::make_unique<mermaid_view>(to, known);
}
