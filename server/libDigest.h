// SHA-1, by which clients of the web interface know an upload again.
#pragma once

#include <string>
#include <string_view>

namespace vestrel {

/// The SHA-1 of some bytes (FIPS 180-4) as 40 hexadecimal digits. It names them; it protects
/// nothing.
std::string Sha1Of(std::string_view bytes);

}  // namespace vestrel
