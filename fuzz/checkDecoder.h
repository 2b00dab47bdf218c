// What every decoder promises its sink, asked of any bytes.
#pragma once

#include <algorithm>
#include <new>
#include <span>
#include <vector>

#include "fuzz/fuzzSupport.h"
#include "image/libDecoder.h"
#include "image/libStoredRows.h"

namespace vestrel {

/// Takes a picture and holds its decoder to the order and the sizes of the calls.
class CheckingSink final : public PictureSink {  // NOLINT(*-virtual-class-destructor): final
 public:
    explicit CheckingSink(std::span<const std::uint8_t> file = {}) : file_(file) {}

    void Start(const PictureShape& shape) override {
        Require(!started_, "a picture starts once");
        Require(shape.Width > 0 && shape.Height > 0 && shape.Channels > 0, "a picture has pixels");
        constexpr std::int64_t most = 1 << 22;
        if (shape.Width > most / shape.Height) throw DecodeFault("More than is looked at here.");
        rowBytes_ =
            static_cast<std::size_t>(shape.Width * shape.Channels) * SampleBytes(shape.Kind);
        shape_ = shape;
        rows_.resize(static_cast<std::size_t>(shape.Height));
        started_ = true;
    }
    void Row(std::int64_t y, const void* samples) override {
        Require(started_, "rows come after the start");
        Require(y >= 0 && y < static_cast<std::int64_t>(rows_.size()), "a row is of the picture");
        rows_[static_cast<std::size_t>(y)] = true;
        // Every byte is looked at, so that a row that is too short is found.
        const auto* at = static_cast<const unsigned char*>(samples);
        for (std::size_t i = 0; i < rowBytes_; ++i) Sum = Sum * 31 + at[i];
    }
    void Stored(const StoredSamples& samples) override {
        Require(started_, "samples come after the start");
        PassStoredRows(
            shape_, samples,
            [this](std::uint64_t place, std::span<unsigned char> to) {
                if (place > file_.size() || to.size() > file_.size() - place) return false;
                std::copy_n(file_.begin() + static_cast<std::ptrdiff_t>(place), to.size(),
                            to.begin());
                return true;
            },
            *this);
    }
    void Card(std::string_view card) override {
        Require(card.size() <= 80, "a card has 80 characters at most");
    }
    void TextCard(std::string_view keyword, std::string_view text,
                  std::string_view comment) override {
        Require(!keyword.empty() && keyword.size() <= 8, "a keyword has 1 to 8 characters");
        Sum += text.size() + comment.size();
    }
    void NumberCard(std::string_view keyword, double value, std::string_view comment) override {
        TextCard(keyword, {}, comment);
        Sum += value == 0 ? 1 : 0;
    }
    void Remark(std::string text) override { Require(!text.empty(), "a remark says something"); }
    void Orientation(int value) override { Sum += static_cast<std::size_t>(value); }

    bool Whole() const {
        return started_ && std::all_of(rows_.begin(), rows_.end(), [](bool row) { return row; });
    }
    std::size_t Sum = 0;

 private:
    std::span<const std::uint8_t> file_;
    bool started_ = false;
    PictureShape shape_;
    std::size_t rowBytes_ = 0;
    std::vector<bool> rows_;
};

/// Either the whole picture or a fault that says something.
inline int CheckDecoder(PictureDecoder decode, const std::uint8_t* data, std::size_t size) {
    CheckingSink sink({data, size});
    try {
        decode({data, size}, sink);
        Require(sink.Whole(), "a decoded picture has all its rows");
    } catch (const DecodeFault& fault) {
        Require(*fault.what() != 0, "a refusal has a reason");
    } catch (const std::bad_alloc&) {
    }
    return 0;
}

}  // namespace vestrel
