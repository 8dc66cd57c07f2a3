#!/usr/bin/python3
"""The first two seconds of every short targets run: timestamp error against the
board's truth, with and without the bracket fit, and the bracket fit's stated
uncertainty as a band. usage: plot_first_seconds.py first-seconds.csv out.png"""
import csv
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402


def main(path, out):
    runs = {}
    with open(path, newline="") as f:
        for row in csv.DictReader(f):
            key = (row["profile"], int(row["rate_hz"]), int(row["flags"]))
            runs.setdefault(key, []).append(
                (float(row["seconds"]), float(row["error_us"]), float(row["stated_us"])))
    panels = sorted({(p, r) for p, r, _ in runs})
    if not panels:
        sys.exit("no rows in " + path)
    fig, axes = plt.subplots(len(panels), 1, figsize=(9, 2.4 * len(panels)), sharex=True, squeeze=False)
    for ax, (profile, rate) in zip(axes[:, 0], panels):
        for flags, colour, label in ((0, "tab:gray", "flags 0"), (2, "tab:blue", "bracket fit")):
            points = runs.get((profile, rate, flags), [])
            if not points:
                continue
            t = [p[0] for p in points]
            ax.plot(t, [p[1] for p in points], ".", ms=3, color=colour, label=label)
            if flags == 2:
                ax.fill_between(t, [-p[2] for p in points], [p[2] for p in points], color=colour, alpha=0.12,
                                step="mid", label="bracket fit, stated")
        ax.axhline(0, color="black", lw=0.5)
        ax.set_ylabel("error (us)")
        ax.set_title(f"{profile}, {rate} Hz", fontsize=9)
        ax.legend(fontsize=7, loc="upper right")
    axes[-1, 0].set_xlabel("seconds after the first delivered sample")
    fig.tight_layout()
    fig.savefig(out, dpi=110)


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    main(sys.argv[1], sys.argv[2])
