// The address of a telescope behind an INDI server.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vestrel {

struct IndiAddress {
    std::string Host;
    unsigned Port = 7624;
    std::string Device;  ///< may be empty
};

/// Reads "indi://host:port/Device Name". Port and device may be left out, and the device may be
/// percent-encoded. Nothing when the text has another form.
std::optional<IndiAddress> ParseIndiAddress(std::string_view text);

/// The IPv4 address of a host as numbers; empty when it has none. The client library would resolve
/// the name on a thread of its own, and ends the program when it gives up before that thread does.
std::string NumericAddress(const std::string& host);

}  // namespace vestrel
