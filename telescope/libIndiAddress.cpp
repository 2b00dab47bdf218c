#include "telescope/libIndiAddress.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <memory>

namespace vestrel {

namespace {

/// Decodes "Telescope%20Simulator" to "Telescope Simulator"; nothing when it is malformed.
std::optional<std::string> PercentDecoded(std::string_view text) {
    std::string decoded;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        unsigned code = 0;
        const std::string_view digits = text.substr(i + 1, 2);
        const auto end = digits.data() + digits.size();
        if (digits.size() != 2 || std::from_chars(digits.data(), end, code, 16).ptr != end ||
            code < 32) {
            return std::nullopt;
        }
        decoded += static_cast<char>(code);
        i += 2;
    }
    return decoded;
}

}  // namespace

std::optional<IndiAddress> ParseIndiAddress(std::string_view text) {
    constexpr std::string_view scheme = "indi://";
    if (!text.starts_with(scheme)) return std::nullopt;
    text.remove_prefix(scheme.size());
    const std::size_t slash = std::min(text.find('/'), text.size());
    std::string_view host = text.substr(0, slash);
    IndiAddress address;
    if (const std::size_t colon = host.find(':'); colon != std::string_view::npos) {
        const std::string_view port = host.substr(colon + 1);
        const auto end = port.data() + port.size();
        if (std::from_chars(port.data(), end, address.Port).ptr != end || port.empty() ||
            address.Port < 1 || address.Port > 65535) {
            return std::nullopt;
        }
        host = host.substr(0, colon);
    }
    const auto device = PercentDecoded(text.substr(std::min(slash + 1, text.size())));
    if (host.empty() || !device) return std::nullopt;
    address.Host = host;
    address.Device = *device;
    return address;
}

std::string NumericAddress(const std::string& host) {
    addrinfo wanted{};
    wanted.ai_family = AF_INET;  // the only family that the library knows
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &wanted, &found) != 0) return {};
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, freeaddrinfo);
    std::array<char, INET_ADDRSTRLEN> text{};
    const auto* address = reinterpret_cast<const sockaddr_in*>(found->ai_addr);
    if (inet_ntop(AF_INET, &address->sin_addr, text.data(), text.size()) == nullptr) return {};
    return text.data();
}

}  // namespace vestrel
