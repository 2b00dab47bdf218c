// The bodies of HTTP forms, as programs really send them.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vestrel {

/// A part of a multipart body; its bytes lie in the body.
struct FormPart {
    std::string Name;
    std::string FileName;  ///< the last component; empty: none
    std::string_view Body;
};

/// The boundary of a Content-Type "multipart/form-data; boundary=..."; nothing for other types.
std::optional<std::string> BoundaryOf(std::string_view contentType);

/// Takes a multipart body apart (RFC 2046, section 5.1, and RFC 7578). Lines may end with a line
/// feed alone: there are clients that send them so.
/// @return nothing for a body that does not end with its closing boundary, and for more than 100
///         parts
std::optional<std::vector<FormPart>> ParseMultipart(std::string_view body,
                                                    std::string_view boundary);

/// The value of a field in an URL-encoded form; nothing when it has none.
std::optional<std::string> UrlEncodedField(std::string_view body, std::string_view name);

}  // namespace vestrel
