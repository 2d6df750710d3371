#include "thermostat.h"

#include "kx/app.h"

int main() { return kx::run("thermostat", thermostat); }
