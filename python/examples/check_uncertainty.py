#!/usr/bin/env python3
"""Holds the soundings' predicted uncertainty against the simulator's truth.

Simulates flat and sloped seabeds at several signal-to-noise ratios, runs
them through the kernel with the survey's own contributions at 0 (the
simulator knows its sound speed and roll exactly), and compares each own
detection within 60 degrees of nadir with the truth along its beam. Prints
the detector's mean lateness (what range_offset_samples calibrates), the
share of depth errors within 1 and 2 predicted sigma, the median predicted
sigma at nadir and at 55 degrees, and the share of soundings meeting Special
Order with the survey's default contributions; draws predicted sigma against
the observed scatter.

    /usr/bin/python3 python/examples/check_uncertainty.py --plot uncertainty.png
"""

import argparse
import os
import pathlib
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))  # the package beside this folder

import numpy as np  # noqa: E402

import kvane  # noqa: E402

SOURCE = pathlib.Path(__file__).resolve().parents[2]


def simulate(simulator, path, depth, slope, snr, pings, seed):
    # Long enough for the beams within 60 degrees of nadir on this seabed.
    reach = depth * np.cos(np.radians(slope)) / np.cos(np.radians(min(60.0 + abs(slope), 80.0)))
    samples = int(min(8000, 2.0 * reach / 1500.0 * 20000.0 + 300))
    subprocess.run([simulator, "--out", path, "--depth", str(depth), "--slope", str(slope), "--snr", str(snr),
                    "--pings", str(pings), "--samples", str(samples), "--seed", str(seed)],
                   check=True, capture_output=True)
    return np.loadtxt(f"{path}.truth.csv", delimiter=",", skiprows=1)[:, 1]


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--depths", type=float, nargs="+", default=[20.0])
    parser.add_argument("--slopes", type=float, nargs="+", default=[0.0, 15.0])
    parser.add_argument("--snrs", type=float, nargs="+", default=[10.0, 20.0, 30.0])
    parser.add_argument("--pings", type=int, default=12)
    parser.add_argument("--seed", type=int, default=7)
    parser.add_argument("--simulator", default=os.path.join(
        os.environ.get("KVANE_BINARY_DIR", SOURCE / "build"), "tools", "kvane-simulate"))
    parser.add_argument("--plot", help="PNG of predicted sigma against the observed scatter")
    args = parser.parse_args(argv)

    rows = []  # (snr, depth, slope, angle, error m, sigma m, lateness samples)
    special = []
    with tempfile.TemporaryDirectory() as folder:
        seed = args.seed
        for depth in args.depths:
            for slope in args.slopes:
                for snr in args.snrs:
                    path = os.path.join(folder, "sim.kvr")
                    truth = simulate(args.simulator, path, depth, slope, snr, args.pings, seed)
                    seed += 1
                    ds = kvane.process_recording(path, sound_speed_sigma=0.0, roll_sigma=0.0, progress=False)
                    angle = ds.beam_angle.values
                    own = (ds.bottom_flag.values == 1) & (np.abs(angle) < 60.0)
                    truth_range = truth[None, :] * 1500.0 / 40000.0
                    error = ds.depth.values - truth_range * np.cos(np.radians(angle))
                    lateness = ds.bottom_sample.values + 15.0 - truth[None, :]
                    for values in zip(angle[own], error[own], ds.depth_uncertainty.values[own], lateness[own]):
                        rows.append((snr, depth, slope, *values))
                    if slope == 0.0:
                        survey = kvane.process_recording(path, progress=False)
                        flat = survey.bottom_flag.values == 1
                        special.append((depth, snr, np.mean(survey.iho_order.values[flat] >= 3)))
    table = np.array(rows)
    snr, angle, error, sigma, late = table[:, 0], np.abs(table[:, 3]), table[:, 4], table[:, 5], table[:, 6]
    kept = np.abs(late - np.median(late)) < 4.0
    print(f"detector lateness: mean {np.mean(late[kept]):.2f} samples (median {np.median(late):.2f}; "
          f"{np.mean(~kept) * 100:.1f} % gross errors left out); range_offset_samples is "
          f"{kvane.uncertainty.RANGE_OFFSET_SAMPLES}")
    print("snr_db  soundings  within_1_sigma  within_2_sigma  sigma_nadir_cm  sigma_55_cm")
    for value in args.snrs:
        k = snr == value
        z = np.abs(error[k] / sigma[k])
        nadir = np.median(sigma[k & (angle < 5.0)]) * 100
        outer = np.median(sigma[k & (angle >= 50.0)]) * 100
        print(f"{value:6.0f}  {k.sum():9d}  {np.mean(z <= 1):14.3f}  {np.mean(z <= 2):14.3f}  {nadir:14.2f}  "
              f"{outer:11.2f}")
    for depth, value, share in special:
        print(f"flat {depth:g} m, {value:g} dB, default survey sigmas: {share * 100:.1f} % of own detections "
              "meet Special Order")
    if args.plot:
        plot(args.plot, snr, error, sigma, args.snrs)


def plot(path, snr, error, sigma, snrs):
    from matplotlib.backends.backend_agg import FigureCanvasAgg
    from matplotlib.figure import Figure

    figure = Figure(figsize=(6, 5))
    FigureCanvasAgg(figure)
    axes = figure.add_subplot()
    for value in snrs:
        k = snr == value
        edges = np.quantile(sigma[k], np.linspace(0, 1, 11))  # ten bins of equal count
        centre, observed = [], []
        for lo, hi in zip(edges[:-1], edges[1:]):
            b = k & (sigma >= lo) & (sigma < hi)
            if b.sum() >= 30:
                centre.append(np.median(sigma[b]) * 100)
                # the spread a Gaussian with 68 % inside would have
                observed.append(np.quantile(np.abs(error[b]), 0.6827) * 100)
        axes.plot(centre, observed, "o", label=f"{value:g} dB")
    top = max(axes.get_xlim()[1], axes.get_ylim()[1])
    axes.plot([0, top], [0, top], "k--", lw=0.8, label="observed = predicted")
    axes.set_xlabel("predicted depth sigma, cm (bin median)")
    axes.set_ylabel("observed: 68th percentile of |depth error|, cm")
    axes.set_title("Predicted against observed scatter, simulated seabeds")
    axes.legend(fontsize="small")
    axes.grid(alpha=0.3)
    figure.tight_layout()
    figure.savefig(path, dpi=100)
    print(f"wrote {path}")


if __name__ == "__main__":
    main()
