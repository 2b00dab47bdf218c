// What every decoder promises its sink, asked of any bytes.
#pragma once

#include <algorithm>
#include <new>
#include <vector>

#include "fuzz/fuzzSupport.h"
#include "image/libDecoder.h"

namespace vestrel {

/// Takes a picture and holds its decoder to the order and the sizes of the calls.
class CheckingSink final : public PictureSink {  // NOLINT(*-virtual-class-destructor): final
 public:
    void Start(const PictureShape& shape) override {
        Require(!started_, "a picture starts once");
        Require(shape.Width > 0 && shape.Height > 0 && shape.Channels > 0, "a picture has pixels");
        constexpr std::int64_t most = 1 << 22;
        if (shape.Width > most / shape.Height) throw DecodeFault("More than is looked at here.");
        constexpr std::size_t bytes[] = {1, 2, 2, 4, 8};
        rowBytes_ = static_cast<std::size_t>(shape.Width * shape.Channels) *
                    bytes[static_cast<std::size_t>(shape.Kind)];
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
    bool started_ = false;
    std::size_t rowBytes_ = 0;
    std::vector<bool> rows_;
};

/// Either the whole picture or a fault that says something.
inline int CheckDecoder(PictureDecoder decode, const std::uint8_t* data, std::size_t size) {
    CheckingSink sink;
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
