// The least that a catalog's text table can cost: its lines are found and the numbers that a star
// needs are parsed, nothing else. The lower bound of `vestrel-catalog build --csv`.
//
//   vestrel-plain-rows FILE COLUMNS COLUMN...
//
// FILE has COLUMNS columns; the numbers of the given ones (counted from 1) are parsed. Prints the
// number of rows, the sum of all numbers (so that they are really needed) and processor time.
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

namespace {

/// Adds the wanted numbers of a row; false when one is missing.
bool AddRow(const char* at, const char* end, const std::vector<bool>& wanted, double& sum) {
    for (std::size_t column = 0; column < wanted.size(); ++column) {
        const auto* comma =
            static_cast<const char*>(std::memchr(at, ',', static_cast<std::size_t>(end - at)));
        const char* stop = comma == nullptr ? end : comma;
        if (wanted[column]) {
            double value = 0;
            if (std::from_chars(at, stop, value).ptr != stop) return false;
            sum += value;
        }
        if (comma == nullptr) return column + 1 == wanted.size();
        at = comma + 1;
    }
    return false;
}

}  // namespace

int main(int count, char** arguments) {
    if (count < 4) return 2;
    std::FILE* file = std::fopen(arguments[1], "rb");
    if (file == nullptr) return 3;
    std::vector<bool> wanted(static_cast<std::size_t>(std::strtoul(arguments[2], nullptr, 10)));
    for (int i = 3; i < count; ++i) wanted.at(std::strtoul(arguments[i], nullptr, 10) - 1) = true;
    std::vector<char> buffer(std::size_t{1} << 20);
    std::size_t held = 0;
    long rows = -1;  // the first line has the names
    long bad = 0;
    double sum = 0;
    for (;;) {
        held += std::fread(buffer.data() + held, 1, buffer.size() - held, file);
        const char* at = buffer.data();
        const char* end = at + held;
        while (const auto* line = static_cast<const char*>(
                   std::memchr(at, '\n', static_cast<std::size_t>(end - at)))) {
            if (rows++ >= 0 && !AddRow(at, line, wanted, sum)) ++bad;
            at = line + 1;
        }
        if (at == buffer.data()) break;
        held = static_cast<std::size_t>(end - at);
        std::memmove(buffer.data(), at, held);
    }
    std::fclose(file);
    std::printf("%ld rows, %ld without a number, sum %.6g, %.2f s\n", rows, bad, sum,
                static_cast<double>(std::clock()) / CLOCKS_PER_SEC);
    return 0;
}
