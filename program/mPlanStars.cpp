#include "program/mPlanStars.h"

#include <utility>

#include "extraction/libMosaic.h"
#include "extraction/libNegative.h"
#include "extraction/libRobustStars.h"
#include "program/mStopwatch.h"

namespace vestrel {

void PlanStars::KeepMosaicSums() {
    if (pixels_ && !given_) mosaicSums_ = SumsOfMosaic(state_.Image);
}

void PlanStars::LookForNegative() {
    if (pixels_ && !given_ && !mosaicSums_ && MayBeNegative(state_.Image)) FindDarkStars();
}

void PlanStars::FindDarkStars() {
    const StageTimer timer(state_.Report.Times.Extraction);
    PeakSettings settings;
    settings.Binning = BinningFor(state_.Image);
    settings.Dark = true;
    darkStars_ = StarListOf(StarsAmong(FindPeaks(state_.Image, settings), state_.Image));
}

const PlateStarList& PlanStars::Of(StarSource from) {
    std::optional<PlateStarList>& list = ListOf(from);
    if (list) return *list;
    const PlateImage& image = state_.Image;
    if (from == StarSource::Extracted || (!pixels_ && from != StarSource::EvenPeaks)) {
        list.emplace();
    } else if (from == StarSource::EvenPeaks) {
        list = SpreadEvenly(Of(StarSource::Peaks), image.Width, image.Height);
    } else if (given_) {
        list = given_;
    } else {
        const StageTimer timer(state_.Report.Times.Extraction);
        const PlateImage& looked = mosaicSums_ ? *mosaicSums_ : image;
        PeakSettings settings;
        settings.Binning = BinningFor(looked);
        list = StarListOf(StarsAmong(FindPeaks(looked, settings), looked));
        // An uneven or noisy sky may have hidden that it is a negative, which has few bright peaks.
        constexpr std::int32_t few = 60;
        if (darkStars_.Empty() && !mosaicSums_) {
            if (list->Count() < few) {
                FindDarkStars();
            } else {
                LookForNegative();
            }
        }
        // Hills in front of the sky are dark too, but have few peaks; and noise has some.
        constexpr std::int32_t byNoise = 10;
        if (darkStars_.Count() > 2 * list->Count() + byNoise) list = darkStars_;
        if (mosaicSums_) list = InMosaicPixels(*std::move(list));
    }
    return *list;
}

}  // namespace vestrel
