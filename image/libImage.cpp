#include "image/libImage.h"

namespace vestrel {

void ClearHeader(ImageHeader& header) {
    std::vector<std::string> cards = std::move(header.Cards);
    header = ImageHeader();
    header.Cards = std::move(cards);
    for (std::string* text :
         {&header.Object, &header.Telescope, &header.Instrument, &header.Observer, &header.DateObs,
          &header.History, &header.SoftwareCreate, &header.SoftwareModify,
          &header.SbigStandardVersion, &header.Filter, &header.Spare, &header.Note, &header.Date,
          &header.Time}) {
        *text = "0";
    }
}

void StartPixels(PlateImage& image, std::int32_t dataOffset, CellWidth cells) {
    image.Width = image.Header.NAxis1;
    image.Height = image.Header.NAxis2;
    image.DataOffset = dataOffset;
    image.Pedestal = image.Header.Pedestal;
    image.DisplayBlack = image.DisplayWhite = 0;
    image.Pixels = PixelGrid();  // frees the old image's memory first
    constexpr std::int32_t mostCount = 65535;
    if (cells == CellWidth::Narrow && dataOffset >= 0 && dataOffset <= mostCount) {
        image.Pixels = PixelGrid::Narrow(image.Width, image.Height, -dataOffset);
    } else {
        image.Pixels = PixelGrid(Grid<std::int32_t>(image.Width, image.Height));
    }
}

bool FirstRowAtTop(const PlateImage& image) {
    if (image.ImageType == ImageType::Decoded) return image.TopRowFirst;
    return image.ImageType != ImageType::Fits || image.Header.BitPix == -32;
}

bool TurnedOver(const PlateImage& image) {
    // The FITS decoder turns over the same images as the program's own reader and states that all
    // others have the bottom row first. Other formats are never turned over.
    if (image.ImageType == ImageType::Decoded) return image.Format == "FITS" && image.TopRowFirst;
    return image.ImageType == ImageType::Fits && image.Header.BitPix == -32;
}

}  // namespace vestrel
