// Replaces libFuzzer where it is not available: runs the files of the given folders, then seeded
// mutations of them. It knows some of libFuzzer's flags and ignores the others, so that the same
// command works for both.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <string>
#include <vector>

#include "astro/libStrings.h"
#include "fuzz/fuzzSupport.h"
#include "platform/libPlatform.h"

namespace vestrel {
namespace {

namespace fs = std::filesystem;
using Seconds = std::chrono::duration<double>;

double Now() {
    return Seconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

class Driver {
 public:
    Driver(int count, char** arguments) : arguments_(arguments + 1, arguments + count) {}

    int Run() {
        const std::vector<fs::path> files = Files();
        std::vector<std::string> inputs;
        for (const fs::path& file : files) {
            std::fprintf(stderr, "%s\n", file.c_str());
            inputs.push_back(ReadFile(file));
            RunOne(inputs.back());
        }
        Require(!inputs.empty(), "there are files to start from");

        // The input is written before it is run, so that it is known even when the process is
        // killed.
        const fs::path current = Text("artifact_prefix", "") + "last-input";
        std::fprintf(stderr, "Each mutation is in %s while it runs\n", current.c_str());
        const double runs = Number("runs", std::numeric_limits<std::uint32_t>::max());
        const double end = Now() + Number("max_total_time", 1e9);
        std::uint32_t seed = 0;
        for (; seed < runs && Now() < end; ++seed) {
            const std::string input = Damaged(inputs[seed % inputs.size()], seed);
            WriteFile(current, input);
            RunOne(input);
        }
        fs::remove(current);
        std::fprintf(stderr, "%zu files and %u mutations\n", inputs.size(), seed);
        return 0;
    }

 private:
    std::string Text(const std::string& flag, const std::string& otherwise) const {
        const std::string start = "-" + flag + "=";
        for (const std::string& argument : arguments_) {
            if (argument.starts_with(start)) return argument.substr(start.size());
        }
        return otherwise;
    }
    double Number(const std::string& flag, double otherwise) const {
        return ParseNumber(Text(flag, "")).value_or(otherwise);
    }

    /// The files of all given places in the order of their names, so that runs are the same
    /// everywhere.
    std::vector<fs::path> Files() const {
        std::vector<fs::path> files;
        for (const std::string& place : arguments_) {
            if (place.starts_with("-")) continue;
            if (fs::is_regular_file(place)) files.emplace_back(place);
            if (!fs::is_directory(place)) continue;
            for (const auto& entry : fs::directory_iterator(place)) files.push_back(entry.path());
        }
        std::sort(files.begin(), files.end());
        return files;
    }

    void RunOne(const std::string& input) const {
        const double start = Now();
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
        Require(Now() - start < Number("timeout", 1200), "no input takes that long");
        Require(static_cast<double>(PeakMemoryBytes() >> 20) < Number("rss_limit_mb", 2048),
                "no input takes that much memory");
    }

    std::vector<std::string> arguments_;
};

}  // namespace
}  // namespace vestrel

int main(int count, char** arguments) {
    return vestrel::Driver(count, arguments).Run();
}
