"""Pictures of one ping with matplotlib: the beam image with the bottom line,
the water-column wedge and the side-scan waterfall."""

import numpy as np


def _decibels(image, dynamic_range):
    """Amplitude in dB relative to the image's peak, floored at -dynamic_range."""
    image = np.asarray(image, np.float64)
    peak = float(image.max()) if image.size else 0.0
    if not np.isfinite(peak) or peak <= 0.0:
        return np.full(image.shape, -float(dynamic_range))
    with np.errstate(divide="ignore", invalid="ignore"):
        level = 20.0 * np.log10(np.maximum(image, 0.0) / peak)
    return np.clip(np.nan_to_num(level, nan=-dynamic_range), -dynamic_range, 0.0)


def _new_figure(path, size):
    if path is not None:
        # Saving needs no display: draw on an Agg canvas without pyplot, so
        # the caller's backend and pyplot's figure list stay as they are.
        from matplotlib.backends.backend_agg import FigureCanvasAgg
        from matplotlib.figure import Figure

        figure = Figure(figsize=size)
        FigureCanvasAgg(figure)
        return figure
    import matplotlib.pyplot as plt

    return plt.figure(figsize=size)


def plot_ping(result, path=None, title=None, dynamic_range=60.0, figure=None, dpi=100):
    """Draws a PingResult in three panels: the beam image (beams across,
    samples down, in dB below its peak) with the bottom line over it (own
    detections as a line, beams copied from a neighbour as crosses), the
    wedge as the kernel painted it, and the waterfall, newest row on top
    (rows not yet reached by any ping left out).

    path: if given, the figure is saved there (PNG by extension) on an Agg
    canvas. figure: an existing matplotlib Figure to draw into. Returns the
    Figure."""
    if figure is None:
        figure = _new_figure(path, (15.0, 5.5))
    axes = figure.subplots(1, 3, gridspec_kw={"width_ratios": [1.0, 1.6, 1.3]})

    beams, samples = result.beam_image.shape
    ax = axes[0]
    ax.imshow(
        _decibels(result.beam_image.T, dynamic_range),
        aspect="auto",
        cmap="viridis",
        origin="upper",
        extent=(-0.5, beams - 0.5, samples - 0.5, -0.5),
        interpolation="nearest",
    )
    beam = np.arange(beams)
    bottom = np.asarray(result.bottom_sample, np.float64)
    flag = np.asarray(result.bottom_flag)
    own = np.where((flag == 1) & (bottom > 0.0), bottom, np.nan)
    copied = (flag == 2) & (bottom > 0.0)
    ax.plot(beam, own, color="red", linewidth=1.2, label="bottom")
    if copied.any():
        ax.plot(beam[copied], bottom[copied], "x", color="orange", markersize=3, label="copied")
    ax.set_xlim(-0.5, beams - 0.5)
    ax.set_ylim(samples - 0.5, -0.5)
    ax.set_xlabel("beam (port at 0)")
    ax.set_ylabel("sample")
    ax.set_title(f"beams, first echo {result.first_echo:.0f}")
    if np.isfinite(own).any() or copied.any():
        ax.legend(loc="lower right", fontsize="small")

    ax = axes[1]
    ax.imshow(result.wedge, cmap="gray", vmin=0, vmax=255, interpolation="nearest")
    ax.set_title("water column")
    ax.set_axis_off()

    ax = axes[2]
    waterfall = result.waterfall
    # Rows that no ping has reached yet are all zero: show the filled ones.
    filled = np.flatnonzero(np.any(waterfall != 0.0, axis=1)) if waterfall.size else []
    if len(filled):
        waterfall = waterfall[: filled[-1] + 1]
    if waterfall.size:
        half = waterfall.shape[1] // 2
        ax.imshow(
            _decibels(waterfall, dynamic_range),
            aspect="auto",
            cmap="copper",
            extent=(-half - 0.5, half - 0.5, waterfall.shape[0] - 0.5, -0.5),
            interpolation="nearest",
        )
    ax.set_xlabel("port  <  sample  >  starboard")
    ax.set_ylabel("ping (newest at 0)")
    ax.set_title("side scan")

    if title:
        figure.suptitle(title)
    figure.tight_layout()
    if path is not None:
        figure.savefig(path, dpi=dpi)
    return figure
