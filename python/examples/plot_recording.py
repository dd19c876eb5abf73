#!/usr/bin/env python3
"""Runs a recording through the kernel and saves a picture of one ping: the
beam image with the bottom line, the water-column wedge and the side-scan
waterfall.

    kvane-simulate --out sim.rec --pings 20 --samples 2000 --depth 20
    /usr/bin/python3 python/examples/plot_recording.py sim.rec --out ping.png

Every ping up to the one shown goes through the kernel, since the first-echo
history, the tracker and the waterfall build up from ping to ping.
"""

import argparse
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))  # the package beside this folder

import kvane  # noqa: E402


def parameter(text):
    name, _, value = text.partition("=")
    if not value:
        raise argparse.ArgumentTypeError(f"expected NAME=VALUE, got {text!r}")
    number = float(value) if any(ch in value.lower() for ch in ".en") else int(value)
    return name, number


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("recording", help="recorded pings, e.g. from kvane-simulate")
    parser.add_argument("--out", default="ping.png", help="picture file (default ping.png)")
    parser.add_argument("--ping", type=int, default=0, help="ping to show, from 1 (default: the last)")
    parser.add_argument("--roll-from-aux", action="store_true",
                        help="steer with the roll table the simulator keeps in each record")
    parser.add_argument("--set", type=parameter, action="append", default=[], metavar="NAME=VALUE",
                        help="parameter value, e.g. --set beamCount=128 (repeatable)")
    args = parser.parse_args()

    try:
        params = kvane.Params(**dict(args.set))
    except (TypeError, ValueError) as error:
        parser.error(str(error))

    shown = None
    try:
        with kvane.Workspace() as ws:
            for ping in kvane.read_recording(args.recording):
                ping_params = params
                if args.roll_from_aux:
                    roll = kvane.roll_parameters(ping.aux)
                    if roll is not None:
                        ping_params = params.replace(**roll)
                result = ws.process(ping_params, ping.plane_i, ping.plane_q)
                shown = (ping.number, result)
                if ping.number == args.ping:
                    break
    except (OSError, kvane.RecordingError) as error:
        print(f"plot_recording: {error}", file=sys.stderr)
        return 1
    if shown is None:
        print(f"plot_recording: {args.recording} holds no pings", file=sys.stderr)
        return 1
    number, result = shown
    if args.ping and number != args.ping:
        print(f"plot_recording: {args.recording} has only {number} pings; showing the last", file=sys.stderr)
    kvane.plot_ping(result, args.out, title=f"{args.recording}, ping {number}")
    print(f"wrote {args.out} (ping {number})")
    return 0


if __name__ == "__main__":
    sys.exit(main())
