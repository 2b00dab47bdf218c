#include "program/mGeneral.h"

namespace vestrel {

void ForgetImage(ProgramState& state) {
    ForgetSolution(state);
    state.ImageLoaded = false;
    state.BackgroundRemoved = false;
    state.PlateStars.Clear();
    state.Report = {};
    state.QuadMatch = {};

    SolveDisplay& display = state.Display;
    const SolveDisplay nothing;
    display.CentreCaption = nothing.CentreCaption;
    display.Status1 = nothing.Status1;
    display.OffersJustSolve = false;
    display.Cause.clear();
    for (std::string SolveDisplay::*text :
         {&SolveDisplay::CentreRa, &SolveDisplay::CentreDec, &SolveDisplay::ImageSize,
          &SolveDisplay::PlateSize, &SolveDisplay::Scale, &SolveDisplay::Stretch,
          &SolveDisplay::Skew, &SolveDisplay::Angle, &SolveDisplay::Extracted,
          &SolveDisplay::FoundInCatalog, &SolveDisplay::Matched, &SolveDisplay::RmsDifference,
          &SolveDisplay::Details}) {
        (display.*text).clear();
    }
}

void ForgetSolution(ProgramState& state) {
    state.Solution.reset();
    state.Sky = {};
}

void CountsChanged(ProgramState& state) {
    state.Image.DisplayBlack = state.Image.DisplayWhite = 0;
}

}  // namespace vestrel
