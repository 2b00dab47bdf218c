#!/usr/bin/env python3
"""What ERFA makes of precessed positions and sidereal times. Prints complaints only.

judgeTime.py FILE LIMIT   lines of ra, dec, from, to (Julian dates), precessed ra, dec, and the
                          sidereal hours at `to`; LIMIT in arcseconds
"""
import sys

try:
    import erfa
    import numpy
except ImportError as error:
    sys.exit(f"no judge: {error}")

rows = numpy.loadtxt(sys.argv[1])
assert len(rows) > 100
worst = 0
for ra, dec, start, end, ours_ra, ours_dec, hours in rows:
    zeta, z, theta = erfa.prec76(start, 0, end, 0)
    turn = erfa.rz(-z, erfa.ry(theta, erfa.rz(-zeta, numpy.eye(3))))
    judged = erfa.rxp(turn, erfa.s2c(ra, dec))
    worst = max(worst, numpy.degrees(erfa.sepp(judged, erfa.s2c(ours_ra, ours_dec))) * 3600)
    late = (hours * 3600 - erfa.gmst82(end, 0) * 43200 / numpy.pi + 43200) % 86400 - 43200
    if abs(late) > 0.01:
        print("sidereal time at", end, "is", late, "seconds off")
if not worst < float(sys.argv[2]):
    print("precession is", worst, "arcseconds off")
