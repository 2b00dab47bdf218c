#!/usr/bin/env python3
"""Compares the fast kernels with their plain forms on new random cases, at least 300 of each.

newSeeds.py PROGRAMS [SEED]      PROGRAMS is the folder of the test programs

The seed is printed: with it the same cases come again.
"""
import os
import random
import subprocess
import sys

# The tests that hold a plain form, and how often they must run for 300 cases.
ORACLES = [("extractionTest", "Background.IsThePlainProcedures*", 3),
           ("extractionTest", "Background.IsThePlainProcedureUnder*", 8),
           ("extractionTest", "NearPercentiles.*", 13),
           ("extractionTest", "RankPercentiles.*", 10),
           ("extractionTest", "GaussianFilter.IsThePlainProcedure*", 5),
           ("extractionTest", "ExtractStars.IsThePlainProcedure*", 5),
           ("matchingTest", "AlignImages.IsThePlainProcedure*", 1),
           ("catalogTest", "Region.CacheAndStarsAreThoseOfThePlainLoops", 2),
           ("astroTest", "CombSort.*", 1)]


def main():
    programs, *seeds = sys.argv[1:]
    seed = seeds[0] if seeds else str(random.randrange(1 << 31))
    print("seed", seed, flush=True)
    failed = []
    for program, test, times in ORACLES:
        run = subprocess.run([os.path.join(programs, program), f"--gtest_filter={test}",
                              f"--gtest_repeat={times}"], capture_output=True, text=True, check=False,
                             env=dict(os.environ, VESTREL_TEST_SEED=seed))
        passed = run.stdout.count("[  PASSED  ] ") - run.stdout.count("[  PASSED  ] 0 tests")
        print(f"{test}: {passed} of {times} runs passed", flush=True)
        if run.returncode != 0 or passed != times:
            failed.append(test)
            print(run.stdout[-4000:], run.stderr[-1000:])
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
