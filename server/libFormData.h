// Parses the bodies of HTTP forms, in the variants that programs really send.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vestrel {

/// A part of a multipart body; `Body` points into it.
struct FormPart {
    std::string Name;
    std::string FileName;  ///< last component of the file name; empty when there is none
    std::string_view Body;
};

/// The boundary of a Content-Type "multipart/form-data; boundary=..."; nothing for other types.
std::optional<std::string> BoundaryOf(std::string_view contentType);

/// Splits a multipart body (RFC 2046, section 5.1, and RFC 7578). Lines may end with a line feed
/// alone, as some clients send them.
/// @return nothing for a body that does not end with its closing boundary, and for more than 100
///         parts
std::optional<std::vector<FormPart>> ParseMultipart(std::string_view body,
                                                    std::string_view boundary);

/// The value of a field in an URL-encoded form; nothing when it has none.
std::optional<std::string> UrlEncodedField(std::string_view body, std::string_view name);

}  // namespace vestrel
