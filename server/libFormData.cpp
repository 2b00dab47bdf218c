#include "server/libFormData.h"

#include <algorithm>

#include "astro/libStrings.h"

namespace vestrel {

namespace {

constexpr std::size_t mostParts = 100;

std::string LowerCase(std::string_view text) {
    std::string result(text);
    std::transform(result.begin(), result.end(), result.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return result;
}

/// The value of "name=value" or name="value" in a header line.
std::string ParameterOf(std::string_view line, std::string_view name) {
    const std::string lower = LowerCase(line);
    const std::string wanted = std::string(name) + "=";
    std::size_t at = 0;
    while ((at = lower.find(wanted, at)) != std::string::npos) {
        const char before = at == 0 ? ';' : lower[at - 1];
        at += wanted.size();
        if (before != ';' && before != ' ' && before != '\t') continue;
        std::string_view value = line.substr(at);
        if (!value.starts_with('"')) {
            return std::string(value.substr(0, value.find_first_of("; \t\r\n")));
        }
        std::string text;
        for (std::size_t i = 1; i < value.size() && value[i] != '"'; ++i) {
            // Quotes in a name are escaped, but backslashes of paths are not.
            if (value[i] == '\\' && i + 1 < value.size() && value[i + 1] == '"') ++i;
            text += value[i];
        }
        return text;
    }
    return {};
}

/// Removes the header lines from the front of a part and reads them. False when they do not end.
bool ReadPartHeader(std::string_view& part, FormPart& result) {
    while (true) {
        const std::size_t end = part.find('\n');
        if (end == std::string_view::npos) return false;
        std::string_view line = part.substr(0, end);
        part.remove_prefix(end + 1);
        if (line.ends_with('\r')) line.remove_suffix(1);
        if (line.empty()) return true;
        if (!LowerCase(line.substr(0, line.find(':'))).starts_with("content-disposition")) continue;
        result.Name = ParameterOf(line, "name");
        result.FileName = ParameterOf(line, "filename");
        const std::size_t slash = LastFolderSeparator(result.FileName);
        if (slash != std::string::npos) result.FileName.erase(0, slash + 1);
    }
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::string UrlDecoded(std::string_view text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const int high = text[i] == '%' && i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
        const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
        if (low >= 0) {
            result += static_cast<char>(high * 16 + low);
            i += 2;
        } else {
            result += text[i] == '+' ? ' ' : text[i];
        }
    }
    return result;
}

}  // namespace

std::optional<std::string> BoundaryOf(std::string_view contentType) {
    if (!LowerCase(Trim(contentType)).starts_with("multipart/form-data")) return std::nullopt;
    std::string boundary = ParameterOf(contentType, "boundary");
    if (boundary.empty()) return std::nullopt;
    return boundary;
}

std::optional<std::vector<FormPart>> ParseMultipart(std::string_view body,
                                                    std::string_view boundary) {
    const std::string delimiter = "--" + std::string(boundary);
    // The first delimiter may begin the body; the others begin a line.
    std::size_t at = 0;
    if (!body.starts_with(delimiter)) {
        at = body.find("\n" + delimiter);
        if (at == std::string_view::npos) return std::nullopt;
        ++at;
    }
    std::vector<FormPart> parts;
    while (true) {
        body.remove_prefix(at + delimiter.size());
        if (body.starts_with("--")) return parts;
        const std::size_t line = body.find('\n');
        if (line == std::string_view::npos || parts.size() == mostParts) return std::nullopt;
        body.remove_prefix(line + 1);
        at = body.find("\n" + delimiter);
        if (at == std::string_view::npos) return std::nullopt;
        std::string_view part = body.substr(0, at);
        if (part.ends_with('\r')) part.remove_suffix(1);
        FormPart result;
        if (!ReadPartHeader(part, result)) return std::nullopt;
        result.Body = part;
        parts.push_back(std::move(result));
        ++at;
    }
}

std::optional<std::string> UrlEncodedField(std::string_view body, std::string_view name) {
    while (!body.empty()) {
        const std::size_t end = std::min(body.find('&'), body.size());
        const std::string_view field = body.substr(0, end);
        body.remove_prefix(std::min(end + 1, body.size()));
        const std::size_t equals = field.find('=');
        if (equals == std::string_view::npos || UrlDecoded(field.substr(0, equals)) != name)
            continue;
        return UrlDecoded(field.substr(equals + 1));
    }
    return std::nullopt;
}

}  // namespace vestrel
