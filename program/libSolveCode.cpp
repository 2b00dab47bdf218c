#include "program/libSolveCode.h"

namespace vestrel {

std::string ResultMessage(SolveCode code) {
    switch (code) {
        case SolveCode::Solved:
            return "Valid plate solution";
        case SolveCode::TooFewStars:
            return "Unanticipated problem during plate matching";
        case SolveCode::NoMatch:
            return "Maximum search limit exceeded";
        case SolveCode::Stopped:
            return "Vestrel was terminated by user";
        case SolveCode::NoImage:
            return "Can't open input file";
    }
    return {};
}

}  // namespace vestrel
