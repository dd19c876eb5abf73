#!/usr/bin/env python3
"""Runs a recording through the kernel and draws its soundings in metres:
across-track distance against depth, every ping, own detections and beams
copied from a neighbour told apart, with the simulator's seabed where a truth
file lies beside the recording.

    build/tools/kvane-simulate --out slope.kvr --pings 10 --samples 2400 --depth 20 --slope 15
    /usr/bin/python3 python/examples/plot_soundings.py slope.kvr --slope 15 --depth 20 --out soundings.png
"""

import argparse
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))  # the package beside this folder

import numpy as np  # noqa: E402

import kvane  # noqa: E402


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("recording")
    parser.add_argument("--out", default="soundings.png")
    parser.add_argument("--depth", type=float, help="simulated depth at nadir, m, to draw the true seabed")
    parser.add_argument("--slope", type=float, default=0.0, help="simulated across-track slope, degrees")
    parser.add_argument("--roll-from-aux", action="store_true")
    args = parser.parse_args(argv)

    from matplotlib.backends.backend_agg import FigureCanvasAgg
    from matplotlib.figure import Figure

    ds = kvane.process_recording(args.recording, roll_from_aux=args.roll_from_aux, progress=False)
    x, depth, flag = ds.across_track.values, ds.depth.values, ds.bottom_flag.values
    figure = Figure(figsize=(8, 4))
    FigureCanvasAgg(figure)
    axes = figure.add_subplot()
    own, copied = flag == 1, flag == 2
    axes.plot(x[own], depth[own], ".", ms=2, color="tab:blue", label="own detection")
    axes.plot(x[copied], depth[copied], "x", ms=3, color="tab:orange", label="copied from a neighbour")
    if args.depth is not None:
        line = np.linspace(np.nanmin(x), np.nanmax(x), 2)
        axes.plot(line, args.depth + line * np.tan(np.radians(args.slope)), "k-", lw=0.8, label="simulated seabed")
    axes.invert_yaxis()
    axes.set_xlabel("across-track distance, m (starboard positive)")
    axes.set_ylabel("depth below the array, m")
    axes.set_title(f"{pathlib.Path(args.recording).name}: {ds.sizes['ping_time']} pings")
    axes.legend(loc="lower left", fontsize="small")
    axes.grid(alpha=0.3)
    figure.tight_layout()
    figure.savefig(args.out, dpi=100)
    print(f"wrote {args.out}")


if __name__ == "__main__":
    main()
