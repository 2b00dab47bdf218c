#include "tests/testSupport.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>

namespace vestrel {
namespace fs = std::filesystem;

unsigned SeedOffset() {
    static std::atomic<unsigned> calls{0};
    const char* seed = std::getenv("VESTREL_TEST_SEED");
    if (seed == nullptr) return 0;
    constexpr unsigned spread = 2654435761;  // so that neighbouring seeds share no cases
    return (static_cast<unsigned>(std::strtoul(seed, nullptr, 10)) + calls++) * spread;
}

TemporaryFolder::TemporaryFolder() {
    static std::atomic<int> number{0};
    std::random_device random;
    Path = fs::temp_directory_path() /
           ("vestrel-test-" + std::to_string(random()) + "-" + std::to_string(++number));
    fs::create_directories(Path);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    fs::remove_all(Path, ignored);
}

void WriteFile(const fs::path& path, std::string_view bytes) {
    // Some file systems wait for the disk when a file is written over.
    std::error_code ignored;
    fs::remove(path, ignored);
    std::ofstream file(path, std::ios::binary);
    file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

std::string ReadFile(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string FitsHeader(const std::vector<std::string>& cards) {
    std::string header;
    const auto add = [&header](std::string card) {
        card.resize(80, ' ');
        header += card;
    };
    for (const std::string& card : cards) add(card);
    add("END");
    header.resize((header.size() + 2879) / 2880 * 2880, ' ');
    return header;
}

std::vector<std::string> FitsCards(int bitPix, int width, int height,
                                   const std::vector<std::string>& more) {
    std::vector<std::string> cards = {"SIMPLE  = T", "BITPIX  = " + std::to_string(bitPix),
                                      "NAXIS   = 2", "NAXIS1  = " + std::to_string(width),
                                      "NAXIS2  = " + std::to_string(height)};
    cards.insert(cards.end(), more.begin(), more.end());
    return cards;
}

std::string FitsPixels(int bitPix, std::span<const double> values) {
    std::string bytes;
    for (const double value : values) {
        std::uint32_t bits = 0;
        if (bitPix == -32) {
            bits = std::bit_cast<std::uint32_t>(static_cast<float>(value));
        } else {
            bits = static_cast<std::uint32_t>(static_cast<std::int32_t>(std::lround(value)));
        }
        for (int shift = std::abs(bitPix) - 8; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(bits >> shift & 0xFF);
        }
    }
    return bytes;
}

std::string ExifMaker::Block() const {
    const auto number = [this](std::uint64_t value, int length) {
        std::string bytes;
        for (int i = 0; i < length; ++i) bytes += static_cast<char>(value >> (8 * i));
        if (BigEndian) std::reverse(bytes.begin(), bytes.end());
        return bytes;
    };
    struct Entry {
        int Tag;
        int Type;
        std::size_t Count;
        std::string Value;
    };
    const auto text = [](int tag, std::string value) {
        value += '\0';
        return Entry{tag, 2, value.size(), value};
    };
    const auto whole = [&](int tag, int value) { return Entry{tag, 3, 1, number(value, 2)}; };
    const auto ratio = [&](int tag, double value) {
        return Entry{tag, 5, 1, number(std::llround(value * 1000), 4) + number(1000, 4)};
    };
    // A directory, followed by the values of more than four bytes.
    const auto directory = [&](const std::vector<Entry>& entries, std::size_t start) {
        std::string heads = number(entries.size(), 2);
        std::string values;
        for (const Entry& entry : entries) {
            heads += number(entry.Tag, 2) + number(entry.Type, 2) + number(entry.Count, 4);
            std::string value = entry.Value;
            if (value.size() > 4) {
                const std::size_t behind = start + 2 + 12 * entries.size() + 4 + values.size();
                values += value;
                value = number(behind, 4);
            }
            value.resize(4, '\0');
            heads += value;
        }
        return heads + number(0, 4) + values;
    };
    std::vector<Entry> exif = {ratio(0x829A, ExposureTime), whole(0x8827, 1600),
                               text(0x9003, "2024:05:03 21:04:05"), ratio(0x920A, FocalLength)};
    if (Columns > 0) exif.push_back(whole(0xA002, Columns));
    if (PixelsPerCentimetre > 0) {
        exif.push_back(ratio(0xA20E, PixelsPerCentimetre));
        exif.push_back(whole(0xA210, 3));
    }
    if (FocalLength35 > 0) exif.push_back(whole(0xA405, FocalLength35));
    const auto main = [&](std::size_t exifAt) {
        return directory({text(0x010F, Make), text(0x0110, Model), whole(0x0112, Orientation),
                          Entry{0x8769, 4, 1, number(exifAt, 4)}},
                         8);
    };
    const std::size_t exifAt = 8 + main(0).size();
    return (BigEndian ? "MM" : "II") + number(42, 2) + number(8, 4) + main(exifAt) +
           directory(exif, exifAt);
}

std::string WithExif(const std::string& jpeg, const std::string& block) {
    const std::size_t length = 2 + 6 + block.size();
    std::string marker("\xFF\xE1", 2);
    marker += static_cast<char>(length >> 8);
    marker += static_cast<char>(length);
    return jpeg.substr(0, 2) + marker + std::string("Exif\0\0", 6) + block + jpeg.substr(2);
}

void SetVariable(const char* name, const fs::path& value) {
#ifdef _WIN32
    _wputenv_s(fs::path(name).c_str(), value.c_str());
#else
    setenv(name, value.c_str(), 1);
#endif
}

void UnsetVariable(const char* name) {
#ifdef _WIN32
    SetVariable(name, "");
#else
    unsetenv(name);
#endif
}

ThreadsForNow::ThreadsForNow(int threads) {
    if (const char* text = std::getenv("VESTREL_THREADS")) before_ = text;
    SetVariable("VESTREL_THREADS", std::to_string(threads));
}

ThreadsForNow::~ThreadsForNow() {
    SetVariable("VESTREL_THREADS", before_.value_or(""));
}

PlateImage EmptyImage(int width, int height, int offset) {
    PlateImage image;
    image.Width = width;
    image.Height = height;
    image.DataOffset = offset;
    image.Pixels = PixelGrid(Grid<std::int32_t>(width, height));
    return image;
}

void AddStar(PlateImage& image, double x, double y, double flux, double sigma) {
    const int reach = static_cast<int>(6 * sigma) + 1;
    const int x0 = static_cast<int>(x);
    const int y0 = static_cast<int>(y);
    for (int i = std::max(x0 - reach, 0); i <= std::min(x0 + reach, image.Width - 1); ++i) {
        for (int j = std::max(y0 - reach, 0); j <= std::min(y0 + reach, image.Height - 1); ++j) {
            const double r2 = (i - x) * (i - x) + (j - y) * (j - y);
            image.Pixels.Wide()(i, j) += static_cast<std::int32_t>(std::lround(
                flux / (6.2831853 * sigma * sigma) * std::exp(-r2 / 2 / sigma / sigma)));
        }
    }
}

std::string Damaged(std::string bytes, std::uint32_t seed, std::size_t head) {
    // Uses the engine's numbers directly, as distributions differ between standard libraries.
    std::mt19937 random(seed);
    for (std::uint32_t faults = random() % 4 + 1; faults > 0 && !bytes.empty(); --faults) {
        const std::size_t range = random() % 2 == 0 ? std::min(head, bytes.size()) : bytes.size();
        const std::size_t at = random() % range;
        const std::size_t length = std::min<std::size_t>(random() % 8 + 1, bytes.size() - at);
        static constexpr std::string_view telling = "0123456789+-.,eETF='/ \xFF";
        switch (random() % 8) {
            case 0:
                bytes.erase(at, length);
                break;
            case 1:
                bytes.insert(at, bytes, at, length);
                break;
            case 2:
                std::swap(bytes[at], bytes[random() % bytes.size()]);
                break;
            case 3:
                if (random() % 4 == 0) bytes.resize(at);
                break;
            case 4:
                bytes[at] = static_cast<char>(random() & 0xFF);
                break;
            default:
                bytes[at] = telling[random() % telling.size()];
        }
    }
    return bytes;
}

void RecordingPort::ShowMessage(const std::string& text, const std::string& title) {
    Messages.push_back(title + ": " + text);
}

void RecordingPort::DisplayChanged() {
    const std::string& text = state_.Display.Status.Text;
    if (Statuses.empty() || Statuses.back() != text) Statuses.push_back(text);
}

void RecordingPort::Yield() {
    ++Yields;
    if (StopAtYield >= 0 && Yields >= StopAtYield) state_.StopRequested = true;
}

}  // namespace vestrel
