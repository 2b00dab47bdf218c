#include "program/mPlanStars.h"

#include <utility>
#include <vector>

#include "extraction/libMosaic.h"
#include "extraction/libRobustStars.h"
#include "program/mStopwatch.h"

namespace vestrel {

void PlanStars::KeepMosaicSums() {
    if (pixels_ && !given_) mosaicSums_ = SumsOfMosaic(state_.Image);
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
        std::vector<Peak> stars = StarsAmong(FindPeaks(looked, settings), looked);
        if (MayBeNegative(looked)) {
            settings.Dark = true;
            std::vector<Peak> dark = StarsAmong(FindPeaks(looked, settings), looked);
            if (dark.size() > stars.size()) stars = std::move(dark);
        }
        list = StarListOf(stars);
        if (mosaicSums_) list = InMosaicPixels(*std::move(list));
    }
    return *list;
}

}  // namespace vestrel
