#include "thermostat_described.h"
#include "kx/app.h"

int main() {
  kx::app app("thermostat");
  const described_thermostat thermostat(app);
  return app.run();
}
