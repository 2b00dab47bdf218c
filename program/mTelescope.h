// The telescope commands: Load makes its position the start of a search, and Sync tells it the
// solved centre. Also the clock, which both need.
#pragma once

#include <string>
#include <vector>

#include "program/mGeneral.h"

namespace vestrel {

/// Reads the system's clock into the state's Julian date and the text that shows it.
void UpdateClock(ProgramState& state);

/// What is wrong with a text for the preference "longitude"; nullptr when it is valid, or empty,
/// which leaves it to the time zone.
const char* FaultOfLongitude(const std::string& text);

/// Load: makes the telescope's position, precessed from the current date to J2000, the approximate
/// centre.
///
/// Connects first when there is no connection; shows "Can't connect to SiTech" when that fails. All
/// other failures, including impossible positions, leave the inputs unchanged and are shown in the
/// status line. A lost connection, for example when the driver did not answer, is made anew at the
/// next try. Does nothing while something else runs. Stop Search and closing the program end the
/// waiting.
void LoadTelescopeCommand(ProgramState& state, Port& port);

/// Connects to the telescope and shows its position in the status line.
void TestTelescopeCommand(ProgramState& state, Port& port);

/// The devices that could be connected where the telescope is looked for, mounts first; tells in
/// the status line what came of it. Fails as Load does.
std::vector<std::string> TelescopeDevicesCommand(ProgramState& state, Port& port);

/// The address of another device of the server that an address names.
std::string AddressOfDevice(const std::string& address, const std::string& device);

/// Sync: tells the telescope that it points to the solved centre. Fails as Load does; does nothing
/// before a solve has succeeded.
void SyncTelescopeCommand(ProgramState& state, Port& port);

}  // namespace vestrel
