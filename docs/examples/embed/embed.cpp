// Solves pictures with the library: the positions of their middles, and the header cards.

#include <vestrel/solver.h>

#include <cstdio>

int main(int argc, char** argv) {
    vestrel::Solver solver;
    bool all = argc > 1;
    for (int i = 1; i < argc; ++i) {
        const vestrel::SolverOutcome outcome = solver.Solve(argv[i]);
        if (!outcome.Solved()) {
            std::fprintf(stderr, "%s: %s\n", argv[i], outcome.Reason.c_str());
            all = false;
            continue;
        }
        std::printf("%s %.6f %+.6f\n", argv[i], outcome.Field->Centre.Ra,
                    outcome.Field->Centre.Dec);
        for (const std::string& card : solver.CoordinateCards()) std::printf("%s\n", card.c_str());
    }
    return all ? 0 : 1;
}
