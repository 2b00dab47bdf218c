#include "program/mPlanStars.h"

#include "extraction/libRobustStars.h"
#include "program/mStopwatch.h"

namespace vestrel {

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
        PeakSettings settings;
        settings.Binning = BinningFor(image);
        list = StarListOf(StarsAmong(FindPeaks(image, settings), image));
    }
    return *list;
}

}  // namespace vestrel
