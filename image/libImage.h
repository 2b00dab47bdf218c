// The image record: pixels and everything that the file header says.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "image/libPixelGrid.h"
#include "platform/libFiles.h"

namespace vestrel {

/// The metadata of a file header and the stored plate solution. Text fields hold the text of the
/// file unchanged (a FITS text keeps its quotes), in whatever encoding it is.
struct ImageHeader {
    /// Room for header cards: indices 1..2999 are used, 0 never.
    static constexpr int MaxCards = 3000;

    bool Compressed = false;         ///< the SBIG file says that it is compressed
    std::vector<std::string> Cards;  ///< raw header lines; number n at index n, see `CardCount`
    std::int16_t CardCount = 0;      ///< cards kept, the END card included
    bool Simple = false;
    std::int16_t BitPix = 0;
    std::int16_t NAxis = 0;
    std::int16_t NAxis1 = 0;
    std::int16_t NAxis2 = 0;
    std::string Object;
    std::string Telescope;
    std::string Instrument;
    std::string Observer;
    std::string DateObs;
    double BScale = 0;  ///< kept and written back, never applied to pixels
    double BZero = 0;
    std::string History;        ///< "0", then each history text after a "|"
    double ExposureTime = 0;    ///< seconds
    double CcdTemperature = 0;  ///< °C
    double XPixelSize = 0;      ///< micrometres
    double YPixelSize = 0;      ///< micrometres
    std::int16_t XSubframeOrigin = 0;
    std::int16_t YSubframeOrigin = 0;
    std::int16_t XBinning = 0;
    std::int16_t YBinning = 0;
    double ElectronGain = 0;      ///< electrons per count
    double FocalLength = 0;       ///< millimetres
    double ApertureDiameter = 0;  ///< millimetres
    double ApertureArea = 0;      ///< square millimetres
    std::int32_t BlackLevel = 0;
    std::int32_t WhiteLevel = 0;
    std::int16_t Pedestal = 0;
    double DataMax = 0;
    std::string SoftwareCreate;
    std::string SoftwareModify;
    std::string SbigStandardVersion;
    std::string Filter;
    std::string Spare;
    std::string ObjectRA;
    std::string ObjectDec;
    std::string Note;
    std::string Date;
    std::string Time;

    // The plate solution. A sky position projected about (RaRef, DecRef) with scale PlateScale
    // gives (ξ, η); then x = A·ξ + B·η + U0 and y = C·ξ + D·η + V0.
    bool PlateMatched = false;
    double PlateTransform[2][3] = {};  ///< {A, B, U0}, {C, D, V0}; pixels per arcsecond, pixels
    double PlateScale = 0;             ///< plane units per radian
    double RaRef = 0;                  ///< radians
    double DecRef = 0;                 ///< radians
    double ImageSizeX = 0;             ///< arcminutes
    double ImageSizeY = 0;             ///< arcminutes

    ImageHeader() : Cards(MaxCards) {}
};

/// Resets every field but `Cards` before a load: numbers to 0, flags to false, texts to "0",
/// `ObjectRA` and `ObjectDec` to empty. Cards beyond the next `CardCount` keep old text and must
/// not be shown.
void ClearHeader(ImageHeader& header);

/// What kind of file an image came from.
enum class ImageType : std::uint8_t {
    None,  ///< nothing was loaded yet
    Fits,  ///< read, like the next two, by the program's own readers
    Sbig,
    Jpeg,
    Decoded,  ///< by a decoder: see `PlateImage::Format`
};

/// How the samples of a file became counts: count = (sample - Zero) x Factor.
struct CountScale {
    double Zero = 0;
    double Factor = 1;
};

/// The loaded image. A stored value plus `DataOffset` is the physical count. It is never negative,
/// except in compressed SBIG files whose deltas run below 0. All loops run x from 0 to Width − 1
/// and y from 0 to Height − 1.
struct PlateImage {
    std::string FileName;
    FileStamp Stamp;   ///< of the file before it was read, for those who read it again
    PixelGrid Pixels;  ///< bounds 0..Width, 0..Height; the spare column and row stay 0
    std::int32_t Width = 0;
    std::int32_t Height = 0;
    std::int32_t DataOffset = 0;
    std::int32_t Pedestal = 0;
    std::int32_t DisplayBlack = 0;  ///< counts that are shown as black and white; both are 0
    std::int32_t DisplayWhite = 0;  ///< until they are chosen
    ImageHeader Header;
    vestrel::ImageType ImageType = vestrel::ImageType::None;
    std::string Format;  ///< the format's name, "TIFF"; empty before the first load

    // Set by decoders only.
    CountScale Counts;
    std::int32_t LargestCount = 65535;  ///< the largest count that the format can hold
    bool TopRowFirst = true;            ///< see `FirstRowAtTop`
    int Orientation = 1;                ///< how to turn the picture for display, 1..8 as in EXIF
    std::vector<std::string> Remarks;   ///< what was left out, or done to the picture
};

/// How wide the cells of an image are: `Narrow` ones take half the memory, and hold the counts
/// 0..65535 only.
enum class CellWidth : std::uint8_t { Narrow, Wide };

/// Gives the image the size and the pedestal of its header, this offset, and a grid of zeros. Cells
/// can be narrow where stored zeros are such counts; with other offsets they become wide. Throws
/// std::bad_alloc when memory is short.
void StartPixels(PlateImage& image, std::int32_t dataOffset, CellWidth cells = CellWidth::Wide);

/// Whether row 0 of the grid is the top of the image as displayed. It is for pictures, SBIG images
/// and floating-point FITS images, which are turned over when they are read. Other FITS images have
/// their bottom row first, and so has every exported standard FITS file. Decoders state it for
/// their images.
bool FirstRowAtTop(const PlateImage& image);

/// Whether the grid has the rows of the file in reverse order, as for floating-point FITS images.
bool TurnedOver(const PlateImage& image);

/// What to show when reading fails: the text of a message box and its title. The text is empty when
/// the reader fails without a message.
struct ReadFailure {
    std::string Text;
    std::string Title;
    std::string Cause = {};  ///< the reason, which the message does not tell; may be empty
};

/// The title of message boxes that name none of their own.
inline constexpr const char* DefaultTitle = "Vestrel";

}  // namespace vestrel
