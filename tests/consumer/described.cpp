// An application outside of the project's tree, with the classes that the installed kxgen makes.
#include "kx/testing.h"
#include "sevenfold.h"

namespace {

class seven final : public sevenfold::server {
 public:
  explicit seven(kx::port& app) : server(app) {}

 private:
  void times(kx::typed_request<int>& asked, int number) override { asked.reply(7 * number); }
};

}  // namespace

int main() {
  kx::testing::bus bus;
  kx::testing::app offering(bus, "offering");
  kx::testing::app using_it(bus, "using");
  const seven server(offering);
  sevenfold::client client(using_it);
  offering.start();
  using_it.start();
  return client.times(6).value_or(0) == 42 ? 0 : 1;
}
