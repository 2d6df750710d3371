// What the thermostat offers, to both ways of writing it and to who uses it.
#ifndef THERMOSTAT_COMMANDS_H
#define THERMOSTAT_COMMANDS_H

// The service "thermostat": GET, no arguments, answers an int, the temperature that is wanted in degrees
// Celsius; SET, an int, answers the same; SELF_TEST, no arguments, answers an int, the number of faults, and
// meanwhile the signal "thermostat.progress" tells the percent that are done. The signal "thermostat.changed"
// tells the temperature that is wanted when it has changed.
enum thermostat_command { GET = 1, SET, SELF_TEST };

#endif
