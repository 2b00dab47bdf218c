// Decoding in a child process: what the child sends arrives, and however it ends, this process does
// not.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "image/libApartDecoder.h"

namespace vestrel {
namespace {

/// Writes down every call.
class Notes final : public PictureSink {  // NOLINT(*-virtual-class-destructor): final
 public:
    void Start(const PictureShape& shape) override {
        shape_ = shape;
        Text += "start " + std::to_string(shape.Width) + "x" + std::to_string(shape.Height) + "x" +
                std::to_string(shape.Channels) + " " +
                std::to_string(static_cast<int>(shape.Kind)) + " " + std::to_string(shape.BitPix) +
                (shape.TopRowFirst ? " top" : " bottom") + "\n";
    }
    void Row(std::int64_t y, const void* samples) override {
        const auto length =
            static_cast<std::size_t>(shape_.Width * shape_.Channels) * SampleBytes(shape_.Kind);
        Text += "row " + std::to_string(y) + " " +
                std::string(static_cast<const char*>(samples), length) + "\n";
    }
    void Stored(const StoredSamples& samples) override {
        Text += "stored " + std::to_string(samples.Start) + (samples.BigEndian ? " big" : "") +
                (samples.Planar ? " planes" : "") + (samples.LastRowFirst ? " last" : "") +
                (samples.TopBitFlipped ? " flipped" : "") + (samples.WholeNumbers ? " whole" : "") +
                "\n";
    }
    void Card(std::string_view card) override { Text += "card " + std::string(card) + "\n"; }
    void TextCard(std::string_view keyword, std::string_view text,
                  std::string_view comment) override {
        Text += std::string(keyword) + "=" + std::string(text) + "/" + std::string(comment) + "\n";
    }
    void NumberCard(std::string_view keyword, double value, std::string_view comment) override {
        Text +=
            std::string(keyword) + "=" + std::to_string(value) + "/" + std::string(comment) + "\n";
    }
    void Remark(std::string text) override { Text += "remark " + text + "\n"; }
    void Orientation(int value) override { Text += "turned " + std::to_string(value) + "\n"; }

    std::string Text;

 private:
    PictureShape shape_;
};

/// A picture of every kind of sample and of every call.
std::string WholePicture(PictureSink& sink, SampleKind kind) {
    sink.Start({7, 300, 3, kind, -64, kind == SampleKind::Int16});
    std::vector<double> samples(7 * 3);
    std::iota(samples.begin(), samples.end(), 0.1);
    for (int y = 299; y >= 0; --y) {
        samples[0] = y;
        sink.Row(y, samples.data());
    }
    sink.Card(std::string(80, 'x'));
    sink.TextCard("OBJECT", std::string("zero\0in\xFFit", 10), "");
    sink.NumberCard("FOCALLEN", 1e300, "a comment");
    sink.Remark("");
    sink.Remark(std::string(100000, 'r'));
    sink.Orientation(6);
    sink.Stored({std::uint64_t{1} << 40, true, false, true, false, true});
    sink.Stored({1, false, true, false, true, false});
    return {};
}

/// What was said about a child that ended so; empty when it was taken for good.
std::string FaultOf(const DecodeCall& decode, const ApartLimits& limits = {}) {
    Notes notes;
    try {
        DecodeApart(decode, notes, limits);
        return {};
    } catch (const DecodeFault& fault) {
        return fault.what();
    }
}

const std::string brokenOff = "Its packed pixels are damaged: the decoder broke off.";

std::size_t OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

TEST(Apart, EveryCallArrivesAsItWasMade) {
    for (int number = 0; number < SampleKinds; ++number) {
        const auto kind = static_cast<SampleKind>(number);
        Notes here;
        Notes there;
        WholePicture(here, kind);
        DecodeApart([kind](PictureSink& sink) { return WholePicture(sink, kind); }, there);
        EXPECT_TRUE(here.Text == there.Text) << static_cast<int>(kind);
    }
    EXPECT_EQ(FaultOf([](PictureSink&) { return "It is blue."; }), "It is blue.");
}

TEST(Apart, AChildThatEndsBadlyIsAFaultAndNothingOfItStays) {
    const std::size_t descriptors = OpenDescriptors();
    for (const int number : {SIGSEGV, SIGBUS, SIGABRT, SIGKILL, SIGPIPE}) {
        EXPECT_EQ(FaultOf([number](PictureSink& sink) {
                      sink.Start({2, 2, 1, SampleKind::UInt8, 8, true});
                      std::raise(number);
                      return std::string();
                  }),
                  brokenOff)
            << number;
    }
    EXPECT_EQ(FaultOf([](PictureSink&) -> std::string { std::_Exit(0); }), brokenOff);
    EXPECT_EQ(FaultOf([](PictureSink&) -> std::string { throw 5; }), brokenOff);
    EXPECT_EQ(FaultOf([](PictureSink&) { return std::string(2, '\0'); }), brokenOff);
    // It lies about its picture.
    const std::array<char, 100> row{};
    EXPECT_EQ(FaultOf([&](PictureSink& sink) {
                  sink.Start({2, 2, 1, SampleKind::UInt8, 8, true});
                  sink.Row(2, row.data());
                  return std::string();
              }),
              brokenOff);
    EXPECT_EQ(FaultOf([&](PictureSink& sink) {
                  sink.Start({1 << 25, 2, 1, SampleKind::UInt8, 8, true});
                  return std::string();
              }),
              brokenOff);
    EXPECT_EQ(FaultOf([&](PictureSink& sink) {
                  sink.Start({2, 2, 1, SampleKind::UInt8, 8, true});
                  sink.Start({2000, 2, 1, SampleKind::UInt8, 8, true});
                  return std::string();
              }),
              brokenOff);
    EXPECT_EQ(FaultOf([&](PictureSink& sink) {
                  for (;;) sink.Remark(std::string(1 << 20, 'r'));
                  return std::string();
              }),
              brokenOff);
    EXPECT_EQ(OpenDescriptors(), descriptors);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    EXPECT_EQ(errno, ECHILD);
}

TEST(Apart, ASignalOfTheTerminalIsTheParentsAffair) {
    EXPECT_EQ(FaultOf([](PictureSink&) {
                  for (const int number : {SIGINT, SIGTERM, SIGHUP}) std::raise(number);
                  return std::string("It went on.");
              }),
              "It went on.");
}

TEST(Apart, AChildHoldsNothingThatItsParentHasOpen) {
    const int held = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 20);
    ASSERT_GE(held, 20);
    EXPECT_EQ(FaultOf([held](PictureSink&) {
                  return std::string(fcntl(held, F_GETFD) < 0 ? "It is closed." : "It is open.");
              }),
              "It is closed.");
    close(held);
}

TEST(Apart, AChildEndsWithItsParent) {
    // The child of a process that ends becomes one of this process.
    ASSERT_EQ(prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
    void* const shared = mmap(nullptr, sizeof(std::atomic<pid_t>), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto& decoder = *new (shared) std::atomic<pid_t>(0);
    const pid_t parent = fork();
    if (parent == 0) {
        FaultOf([&decoder](PictureSink&) -> std::string {
            decoder = getpid();
            std::this_thread::sleep_for(std::chrono::seconds(30));
            return {};
        });
        _exit(0);
    }
    while (decoder == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    kill(parent, SIGKILL);
    EXPECT_EQ(waitpid(parent, nullptr, 0), parent);
    int status = 0;
    EXPECT_EQ(waitpid(decoder, &status, 0), decoder);
    EXPECT_TRUE(WIFSIGNALED(status));
    munmap(shared, sizeof(std::atomic<pid_t>));
    prctl(PR_SET_CHILD_SUBREAPER, 0);
}

TEST(Apart, AChildThatTakesForEverOrAllMemoryIsEnded) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    ApartLimits limits;
    limits.ProcessorSeconds = 1;
    EXPECT_EQ(FaultOf(
                  [](PictureSink&) {
                      std::atomic<int> turns = 0;
                      while (turns >= 0) turns = turns == 0 ? 1 : 0;
                      return std::string();
                  },
                  limits),
              brokenOff);
    limits = {};
    limits.SilenceMilliseconds = 200;
    EXPECT_EQ(FaultOf(
                  [](PictureSink&) {
                      std::this_thread::sleep_for(std::chrono::minutes(10));
                      return std::string();
                  },
                  limits),
              brokenOff);
    limits = {};
    limits.Memory = std::uint64_t{256} << 20;
    EXPECT_EQ(FaultOf(
                  [](PictureSink&) {
                      std::vector<std::vector<char>> taken;
                      for (;;) taken.emplace_back(std::size_t{16} << 20, 'x');
                      return std::string();
                  },
                  limits),
              brokenOff);
    EXPECT_LT(Clock::now() - start, std::chrono::minutes(5)) << "it was waited for";
}

}  // namespace
}  // namespace vestrel
