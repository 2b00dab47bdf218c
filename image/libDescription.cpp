#include "image/libDescription.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "image/libFitsCards.h"

namespace vestrel {

namespace {

constexpr std::size_t keywordLength = 8;
constexpr std::size_t longestDescription = 1 << 20;

bool IsKeyword(std::string_view text) {
    return !text.empty() && text.size() <= keywordLength &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-") ==
               std::string_view::npos;
}

/// "KEYWORD = value": the keyword may be padded to any length.
bool IsCard(std::string_view line) {
    const std::size_t equals = line.find('=');
    if (equals > 2 * keywordLength) return false;  // also when there is none
    std::string_view keyword = line.substr(0, equals);
    keyword = keyword.substr(0, keyword.find_last_not_of(' ') + 1);
    return IsKeyword(keyword);
}

void PassLine(std::string_view line, CardSink& sink) {
    const std::size_t last = line.find_last_not_of(" \r\t");
    line = line.substr(0, last == std::string_view::npos ? 0 : last + 1);
    if (line.empty() || line == "END") return;
    const bool comment = line.starts_with("COMMENT") || line.starts_with("HISTORY");
    if (comment || IsCard(line)) {
        std::string card(line.substr(0, FitsCardLength));
        card.resize(FitsCardLength, ' ');
        sink.Card(card);
        return;
    }
    constexpr std::size_t room = 70;
    for (std::size_t at = 0; at < line.size(); at += room) {
        std::string card = "COMMENT " + std::string(line.substr(at, room));
        std::replace_if(
            card.begin(), card.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
        card.resize(FitsCardLength, ' ');
        sink.Card(card);
    }
}

bool PassJson(std::string_view text, CardSink& sink) {
    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_object()) return false;
    for (const auto& [name, value] : json.items()) {
        if (!IsKeyword(name)) continue;
        if (value.is_number()) sink.NumberCard(name, value.get<double>(), {});
        if (value.is_string()) sink.TextCard(name, value.get<std::string>(), {});
    }
    return true;
}

}  // namespace

void PassDescription(std::string_view text, CardSink& sink) {
    text = text.substr(0, std::min(longestDescription, text.find('\0')));
    // Nesting is bounded, because the parser recurses as deep as the text nests.
    if (text.starts_with('{') && std::count(text.begin(), text.end(), '{') < 100 &&
        std::count(text.begin(), text.end(), '[') < 100 && PassJson(text, sink)) {
        return;
    }
    if (text.find('\n') == std::string_view::npos && text.size() % FitsCardLength == 0) {
        for (std::size_t at = 0; at < text.size(); at += FitsCardLength) {
            PassLine(text.substr(at, FitsCardLength), sink);
        }
        return;
    }
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        PassLine(text.substr(0, end), sink);
        text.remove_prefix(std::min(end + 1, text.size()));
    }
}

void PassNamedText(std::string_view name, std::string_view text, CardSink& sink) {
    constexpr std::size_t longestValue = 68;
    const bool oneLine = std::all_of(text.begin(), text.end(), [](char c) { return c >= ' '; });
    if (!IsKeyword(name) || !oneLine || text.empty() || text.size() > longestValue ||
        text.front() == '\'') {
        PassDescription(std::string(name).append(" = ").append(text), sink);
        return;
    }
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error == std::errc() && end == text.data() + text.size()) {
        sink.NumberCard(name, number, {});
    } else {
        sink.TextCard(name, text, {});
    }
}

}  // namespace vestrel
