// What tests share: temporary folders, files made by hand, and a port that records.
#pragma once

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/libPlatform.h"
#include "program/mGeneral.h"

namespace vestrel {

/// A new folder for one test, removed at the end.
class TemporaryFolder {
 public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    std::filesystem::path operator/(std::string_view name) const {
        return Path / PathFromText(std::string(name));
    }
    std::filesystem::path Path;
};

void WriteFile(const std::filesystem::path& path, std::string_view bytes);
std::string ReadFile(const std::filesystem::path& path);

/// A FITS header of these cards and END, padded with blanks to whole blocks. A card is padded to
/// 80 characters.
std::string FitsHeader(const std::vector<std::string>& cards);

/// The cards of a plain image (SIMPLE, BITPIX, NAXIS, NAXIS1, NAXIS2), followed by `more`.
std::vector<std::string> FitsCards(int bitPix, int width, int height,
                                   const std::vector<std::string>& more = {});

/// Pixels as big-endian bytes: 8-bit unsigned, 16-bit signed or 32-bit floating-point.
std::string FitsPixels(int bitPix, std::span<const double> values);

/// An EXIF block with everything that cameras write about an exposure.
struct ExifMaker {
    bool BigEndian = false;
    int Orientation = 1;
    std::string Make = "Maker";
    std::string Model = "Model 5";
    double ExposureTime = 2.5;       ///< seconds
    double FocalLength = 50;         ///< millimetres
    int FocalLength35 = 0;           ///< millimetres; 0: not said
    double PixelsPerCentimetre = 0;  ///< of the sensor; 0: not said
    int Columns = 0;                 ///< of the picture as it was taken
    std::string Block() const;
};
/// A JPEG file with such a block in it.
std::string WithExif(const std::string& jpeg, const std::string& block);

/// Sets an environment variable of this process, or removes it.
void SetVariable(const char* name, const std::filesystem::path& value);
void UnsetVariable(const char* name);

/// The number of a running process other than this one.
long OtherProcess();

/// Sets the number of threads of the kernels during its lifetime.
class ThreadsForNow {
 public:
    explicit ThreadsForNow(int threads);
    ~ThreadsForNow();
    ThreadsForNow(const ThreadsForNow&) = delete;
    ThreadsForNow& operator=(const ThreadsForNow&) = delete;

 private:
    std::optional<std::string> before_;
};

/// 0, or with $VESTREL_TEST_SEED a number that depends on it and differs at each call.
unsigned SeedOffset();

/// Random numbers that are the same in every run, unless $VESTREL_TEST_SEED selects others.
class Random {
 public:
    explicit Random(unsigned seed) : engine_(seed + SeedOffset()) {}
    /// Uniform over low..high.
    double Between(double low, double high) {
        return std::uniform_real_distribution<double>(low, high)(engine_);
    }
    /// A whole number of low..high, both included.
    int Whole(int low, int high) { return std::uniform_int_distribution<int>(low, high)(engine_); }
    double Normal(double sigma) { return std::normal_distribution<double>(0, sigma)(engine_); }
    std::mt19937& Engine() { return engine_; }

 private:
    std::mt19937 engine_;
};

/// The comb sort in its plainest form, to compare sorted results with: elements 1..n by rising
/// `keyOf`.
template <typename List, typename KeyOf>
void PlainCombSort(List& list, int n, KeyOf keyOf) {
    for (int gap = n / 2; gap != 0; gap = static_cast<int>(gap / 1.3)) {
        for (int i = gap + 1; i <= n; ++i) {
            if (std::invoke(keyOf, list[i - gap]) > std::invoke(keyOf, list[i])) {
                std::swap(list[i - gap], list[i]);
                if (gap == 1 && i > 2) i -= 2;
            }
        }
    }
}

/// An image of zeros.
PlateImage EmptyImage(int width, int height, int offset);

/// Adds a round Gaussian star, in whole counts, as far as it lies in the image. `x`, `y` and
/// `sigma` are in pixels.
void AddStar(PlateImage& image, double x, double y, double flux, double sigma);

/// `bytes` with one to four seeded faults: changed, deleted, doubled, swapped or cut-off stretches.
/// Half of them fall into the first `head` bytes. The result depends on the seed alone, not on the
/// platform.
std::string Damaged(std::string bytes, std::uint32_t seed, std::size_t head = 512);

/// Records messages and status texts in their order; can ask for a stop.
class RecordingPort : public Port {
 public:
    explicit RecordingPort(ProgramState& state) : state_(state) {}
    void ShowMessage(const std::string& text, const std::string& title) override;
    std::optional<std::string> AskForFile(const FileDialog& dialog) override {
        Dialogs.push_back(dialog);
        return Answer;
    }
    void DisplayChanged() override;
    void ImageChanged() override { ++ImageChanges; }
    void ShowProgress(int percent) override { LargestPercent = std::max(LargestPercent, percent); }
    void Yield() override;
    void ShowBusyPointer(bool busy) override { BusyPointer = busy; }

    std::vector<std::string> Messages;  ///< "title: text"
    std::vector<std::string> Statuses;  ///< each status line that was new
    std::vector<FileDialog> Dialogs;
    std::optional<std::string> Answer;  ///< the answer to every file dialog
    int ImageChanges = 0;
    int LargestPercent = 0;
    int Yields = 0;
    int StopAtYield = -1;  ///< sets StopRequested at this yield (from 1) and after it
    bool BusyPointer = false;

 private:
    ProgramState& state_;
};

/// Calls `Meddle` at every yield.
class MeddlingPort : public RecordingPort {
 public:
    using RecordingPort::RecordingPort;
    void Yield() override {
        RecordingPort::Yield();
        if (Meddle) Meddle();
    }
    std::function<void()> Meddle;
};

}  // namespace vestrel
