// XISF pictures (version 1.0, monolithic): an XML header, by pugixml, and the samples after it,
// plain or compressed by zlib, LZ4 or Zstandard, with or without byte shuffling.
#include <lz4.h>
#include <zlib.h>
#include <zstd.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <memory>
#include <pugixml.hpp>
#include <set>
#include <vector>

#include "image/libDecoder.h"
#include "image/libFitsCards.h"

namespace vestrel {

PictureDecoder DecodeXisf;

namespace {

std::vector<std::string_view> Fields(std::string_view text, char separator) {
    std::vector<std::string_view> fields;
    for (;;) {
        const std::size_t end = text.find(separator);
        fields.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return fields;
        text.remove_prefix(end + 1);
    }
}

std::uint64_t WholeNumber(std::string_view text, const char* what) {
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        throw DecodeFault(std::string("Its ") + what + " is damaged.");
    }
    return value;
}

/// How a number is stored.
struct SampleFormat {
    std::string_view Name;
    std::size_t Bytes;
    SampleKind Kind;
    int BitPix;
};
constexpr SampleFormat sampleFormats[] = {{"UInt8", 1, SampleKind::UInt8, 8},
                                          {"UInt16", 2, SampleKind::UInt16, 16},
                                          {"UInt32", 4, SampleKind::UInt32, 32},
                                          {"Float32", 4, SampleKind::Float32, -32},
                                          {"Float64", 8, SampleKind::Float64, -64}};

/// What the attributes of an image element say.
struct Layout {
    std::uint64_t Width = 0;
    std::uint64_t Height = 0;
    std::uint64_t Channels = 1;
    SampleFormat Format = sampleFormats[0];
    bool Planar = true;
    bool BigEndian = false;
    std::uint64_t Position = 0;
    std::uint64_t Length = 0;

    std::uint64_t Bytes() const { return Width * Height * Channels * Format.Bytes; }
};

Layout LayoutOf(const pugi::xml_node& image, std::uint64_t fileBytes) {
    Layout layout;
    const auto geometry = Fields(image.attribute("geometry").value(), ':');
    if (geometry.size() != 3) throw DecodeFault("It is not a picture of two dimensions.");
    layout.Width = WholeNumber(geometry[0], "geometry");
    layout.Height = WholeNumber(geometry[1], "geometry");
    layout.Channels = WholeNumber(geometry[2], "geometry");
    constexpr std::uint64_t mostChannels = 64;
    if (layout.Channels < 1 || layout.Channels > mostChannels || layout.Width > 1U << 24 ||
        layout.Height > 1U << 24) {
        throw DecodeFault("Its geometry is damaged.");
    }
    const std::string_view sample = image.attribute("sampleFormat").value();
    const auto* const format =
        std::find_if(std::begin(sampleFormats), std::end(sampleFormats),
                     [sample](const SampleFormat& known) { return known.Name == sample; });
    if (format == std::end(sampleFormats)) {
        throw DecodeFault("Its samples are of the type " + std::string(sample) +
                          ", which is not supported: save it as UInt16 or Float32.");
    }
    layout.Format = *format;
    layout.Planar = std::string_view(image.attribute("pixelStorage").as_string("Planar")) !=
                    std::string_view("Normal");
    layout.BigEndian =
        std::string_view(image.attribute("byteOrder").value()) == std::string_view("big");
    const auto location = Fields(image.attribute("location").value(), ':');
    if (location.size() != 3 || location[0] != "attachment") {
        throw DecodeFault("Its pixels are not attached to its header (" + std::string(location[0]) +
                          "): save it as a monolithic file.");
    }
    layout.Position = WholeNumber(location[1], "location");
    layout.Length = WholeNumber(location[2], "location");
    if (layout.Position > fileBytes || layout.Length > fileBytes - layout.Position) {
        throw DecodeFault("It ends before its pixels do.");
    }
    return layout;
}

/// Unpacks one block into `out`. False unless it fills `out` exactly.
bool UnpackBlock(std::string_view codec, std::span<const unsigned char> in,
                 std::span<unsigned char> out) {
    if (codec == "zlib") {
        auto length = static_cast<uLongf>(out.size());
        return uncompress(out.data(), &length, in.data(), static_cast<uLong>(in.size())) == Z_OK &&
               length == out.size();
    }
    if (codec == "zstd") {
        return ZSTD_decompress(out.data(), out.size(), in.data(), in.size()) == out.size();
    }
    constexpr std::size_t most = LZ4_MAX_INPUT_SIZE;
    return in.size() <= most && out.size() <= most &&
           LZ4_decompress_safe(reinterpret_cast<const char*>(in.data()),
                               reinterpret_cast<char*>(out.data()), static_cast<int>(in.size()),
                               static_cast<int>(out.size())) == static_cast<int>(out.size());
}

/// The samples of a picture, which may be shuffled: then all first bytes of its items come first,
/// then all second ones. The bytes after the last whole item are as they are.
struct Samples {
    std::unique_ptr<unsigned char[]> Bytes;
    std::size_t ItemBytes = 1;
};

Samples Unpacked(std::span<const unsigned char> data, const Layout& layout,
                 std::string_view compression, std::string_view subblocks) {
    const auto fields = Fields(compression, ':');
    std::string_view codec = fields[0];
    const bool shuffled = codec.ends_with("+sh");
    if (shuffled) codec.remove_suffix(3);
    if (codec == "lz4hc") codec = "lz4";
    if (codec != "zlib" && codec != "lz4" && codec != "zstd") {
        throw DecodeFault("Its compression " + std::string(codec) +
                          " is not supported: save it with zlib, LZ4, Zstandard or none.");
    }
    if (fields.size() < 2 || WholeNumber(fields[1], "compression") != layout.Bytes()) {
        throw DecodeFault("Its compression does not fit its geometry.");
    }
    Samples samples{std::make_unique_for_overwrite<unsigned char[]>(layout.Bytes())};
    std::span<unsigned char> out(samples.Bytes.get(), layout.Bytes());
    const auto damaged = [] { throw DecodeFault("Its pixels cannot be unpacked."); };
    if (subblocks.empty()) {
        if (!UnpackBlock(codec, data, out)) damaged();
    } else {
        for (const std::string_view block : Fields(subblocks, ':')) {
            const auto sizes = Fields(block, ',');
            if (sizes.size() != 2) damaged();
            const std::uint64_t in = WholeNumber(sizes[0], "compression");
            const std::uint64_t made = WholeNumber(sizes[1], "compression");
            if (in > data.size() || made > out.size() ||
                !UnpackBlock(codec, data.first(in), out.first(made))) {
                damaged();
            }
            data = data.subspan(in);
            out = out.subspan(made);
        }
        if (!out.empty()) damaged();
    }
    if (shuffled && fields.size() >= 3) {
        const std::uint64_t item = WholeNumber(fields[2], "compression");
        if (item > 1 && item <= sizeof(double)) samples.ItemBytes = item;
    }
    return samples;
}

/// Copies unpacked bytes and puts them in order.
class Ordered {
 public:
    Ordered(const Samples& samples, std::uint64_t bytes)
        : from_(samples.Bytes.get()),
          itemBytes_(samples.ItemBytes),
          items_(bytes / itemBytes_),
          whole_(items_ * itemBytes_) {}

    /// Fills `out` with the bytes from `place` on.
    void Copy(std::uint64_t place, std::span<unsigned char> out) const {
        if (itemBytes_ == 2 && place % 2 == 0 && place + out.size() <= whole_) {
            return CopyItems<2>(place, out);
        }
        if (itemBytes_ == 4 && place % 4 == 0 && place + out.size() <= whole_) {
            return CopyItems<4>(place, out);
        }
        for (std::size_t i = 0; i < out.size(); ++i) {
            const std::uint64_t at = place + i;
            out[i] = from_[at < whole_ ? at % itemBytes_ * items_ + at / itemBytes_ : at];
        }
    }

 private:
    /// The same for whole items of a usual size.
    template <std::size_t Bytes>
    void CopyItems(std::uint64_t place, std::span<unsigned char> out) const {
        const unsigned char* from = from_ + place / Bytes;
        for (std::size_t i = 0; i < out.size() / Bytes; ++i) {
            for (std::size_t k = 0; k < Bytes; ++k) out[i * Bytes + k] = from[k * items_ + i];
        }
        for (std::size_t i = out.size() / Bytes * Bytes; i < out.size(); ++i) {
            out[i] = from[i % Bytes * items_ + i / Bytes];
        }
    }

    const unsigned char* from_;
    std::uint64_t itemBytes_;
    std::uint64_t items_;
    std::uint64_t whole_;
};

void PassRows(const Samples& samples, const Layout& layout, PictureSink& sink) {
    const Ordered ordered(samples, layout.Bytes());
    const std::size_t bytes = layout.Format.Bytes;
    const std::size_t channels = layout.Channels >= 3 ? 3 : 1;
    const std::size_t planes = layout.Planar ? channels : 1;
    // What is taken of a row: one plane after the other, or the samples of all channels.
    const std::size_t part =
        layout.Width * bytes * (layout.Planar ? 1 : static_cast<std::size_t>(layout.Channels));
    std::vector<unsigned char> stored(part * planes);
    std::vector<unsigned char> row(layout.Width * channels * bytes);
    for (std::size_t y = 0; y < layout.Height; ++y) {
        for (std::size_t c = 0; c < planes; ++c) {
            ordered.Copy((c * layout.Height + y) * part, std::span(stored).subspan(c * part, part));
        }
        if (layout.BigEndian) {
            for (std::size_t i = 0; i < stored.size(); i += bytes) {
                std::reverse(stored.data() + i, stored.data() + i + bytes);
            }
        }
        if (stored.size() == row.size() && (channels == 1 || !layout.Planar)) {
            sink.Row(static_cast<std::int64_t>(y), stored.data());
            continue;
        }
        for (std::size_t x = 0; x < layout.Width; ++x) {
            for (std::size_t c = 0; c < channels; ++c) {
                const std::size_t from =
                    layout.Planar ? c * part + x * bytes : (x * layout.Channels + c) * bytes;
                std::memcpy(row.data() + (x * channels + c) * bytes, stored.data() + from, bytes);
            }
        }
        sink.Row(static_cast<std::int64_t>(y), row.data());
    }
}

/// Passes on the cards of the picture, and those properties that correspond to a card.
void PassCards(const pugi::xml_node& image, PictureSink& sink) {
    std::set<std::string> present;
    for (const pugi::xml_node& keyword : image.children("FITSKeyword")) {
        const std::string name = keyword.attribute("name").value();
        const std::string value = keyword.attribute("value").value();
        const std::string comment = keyword.attribute("comment").value();
        if (name.empty() || name.size() > 8) continue;
        present.insert(name);
        std::string card = name;
        card.resize(8, ' ');
        if (name == "COMMENT" || name == "HISTORY") {
            card += value.empty() ? comment : value;
        } else {
            card += "= " + value;
            if (!comment.empty()) card += " / " + comment;
        }
        std::replace_if(
            card.begin(), card.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
        card.resize(FitsCardLength, ' ');
        sink.Card(card);
    }
    const char* const pattern = image.child("ColorFilterArray").attribute("pattern").value();
    if (*pattern != 0 && !present.contains("BAYERPAT")) sink.TextCard("BAYERPAT", pattern, {});
    struct Property {
        std::string_view Id;
        const char* Keyword;
        double Factor;
        const char* Comment;
    };
    constexpr Property properties[] = {
        {"Observation:Center:RA", "RA", 1, "[deg] right ascension"},
        {"Observation:Center:Dec", "DEC", 1, "[deg] declination"},
        {"Instrument:Telescope:FocalLength", "FOCALLEN", 1000, "[mm] focal length"},
        {"Instrument:Sensor:XPixelSize", "XPIXSZ", 1, "[um] pixel width"},
        {"Instrument:Camera:XBinning", "XBINNING", 1, ""},
        {"Instrument:ExposureTime", "EXPTIME", 1, "[s] exposure"}};
    for (const pugi::xml_node& node : image.children("Property")) {
        for (const Property& property : properties) {
            if (property.Id != node.attribute("id").value()) continue;
            if (present.contains(property.Keyword)) continue;
            const pugi::xml_attribute value = node.attribute("value");
            const std::string_view text = value ? value.value() : node.text().get();
            double number = 0;
            const auto [end, error] =
                std::from_chars(text.data(), text.data() + text.size(), number);
            if (error != std::errc()) continue;
            sink.NumberCard(property.Keyword, number * property.Factor, property.Comment);
        }
    }
}

}  // namespace

void DecodeXisf(std::span<const unsigned char> file, PictureSink& sink) {
    constexpr std::size_t start = 16;
    if (file.size() < start) throw DecodeFault("It ends inside its header.");
    const std::uint32_t length =
        file[8] | file[9] << 8 | file[10] << 16 | static_cast<std::uint32_t>(file[11]) << 24;
    if (length > file.size() - start) throw DecodeFault("It ends inside its header.");
    // The parsed tree takes several times the memory of its text.
    constexpr std::uint32_t longestHeader = 64 << 20;
    if (length > longestHeader) throw DecodeFault("Its header has more than 64 MiB.");
    pugi::xml_document document;
    if (!document.load_buffer(file.data() + start, length)) {
        throw DecodeFault("Its header is no XML.");
    }
    const pugi::xml_node image = document.child("xisf").child("Image");
    if (!image) throw DecodeFault("It holds no picture.");
    const Layout layout = LayoutOf(image, file.size());
    RequirePlausible(static_cast<std::int64_t>(layout.Width),
                     static_cast<std::int64_t>(layout.Height),
                     layout.Channels * layout.Format.Bytes, layout.Length + 1);
    const std::string_view compression = image.attribute("compression").value();
    if (compression.empty() && layout.Length < layout.Bytes()) {
        throw DecodeFault("It ends before its pixels do.");
    }
    const bool packed = !compression.empty();
    // Samples of more than three channels side by side are reduced to three when they are unpacked;
    // stored ones are passed over by the sink.
    const int channels = packed || layout.Planar ? (layout.Channels >= 3 ? 3 : 1)
                                                 : static_cast<int>(layout.Channels);
    sink.Start({static_cast<std::int64_t>(layout.Width), static_cast<std::int64_t>(layout.Height),
                channels, layout.Format.Kind, layout.Format.BitPix, true});
    if (packed) {
        const auto samples = Unpacked(file.subspan(layout.Position, layout.Length), layout,
                                      compression, image.attribute("subblocks").value());
        PassRows(samples, layout, sink);
    } else {
        sink.Stored({layout.Position, layout.BigEndian, layout.Planar, false, false, false});
    }
    PassCards(image, sink);
    if (image.next_sibling("Image")) sink.Remark("Of several pictures the first was read.");
}

}  // namespace vestrel
