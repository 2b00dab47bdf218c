// The telescope: where it points becomes the start of a search, and a solved centre tells it where
// it really points. And the clock, which both need.
#pragma once

#include <string>
#include <vector>

#include "program/mGeneral.h"

namespace vestrel {

/// Looks at the system's clock: the state's Julian date, and the text that shows it.
void UpdateClock(ProgramState& state);

/// Load: where the telescope points, from the current date to J2000, as the approximate centre.
///
/// Connects first when there is no connection; shows "Can't connect to SiTech" when that fails. All
/// other failures, positions that cannot be among them, leave the inputs alone and are told in the
/// status line. A connection that was lost, by a driver that did not answer among others, is made
/// anew at the next try. Does nothing while something else runs: the solve below
/// would have to wait. Stop Search, and closing the program, end the waiting.
/// @return whether the inputs have changed
bool LoadTelescopeCommand(ProgramState& state, Port& port);

/// Connects to the telescope and tells in the status line where it points.
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
