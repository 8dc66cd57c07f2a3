#!/usr/bin/python3
"""Checks pelmor-timing-report on small recordings whose errors are known.

Usage: timing_report_test.py PATH/TO/pelmor-timing-report
"""

import contextlib
import csv
import importlib.machinery
import importlib.util
import io
import os
import sys
import tempfile
import unittest

SCRIPT = sys.argv.pop(1) if len(sys.argv) > 1 else os.path.join(
    os.path.dirname(__file__), "..", "..", "tools", "pelmor-timing-report")
loader = importlib.machinery.SourceFileLoader("timing_report", SCRIPT)
spec = importlib.util.spec_from_loader("timing_report", loader)
report = importlib.util.module_from_spec(spec)
loader.exec_module(report)

PERIOD = 5_000_000          # 200 Hz sensor behind 30 Hz delivery
LATENCY = 10_000
T0 = 1_000_000_000_000


def synthetic_run(count=40, mapped_error=None, lost_edge_from=None, outlier_at=None):
    """Truth at 200 Hz and the 30 Hz samples decimated from it. Sample i's
    mapped time is off by mapped_error(i); from lost_edge_from on every event
    belongs to the next sensor sample, as after a lost INT1 edge; outlier_at
    gives one sample the next sample's edge on its own."""
    mapped_error = mapped_error or (lambda i: 0)
    truth, samples = [], []
    accumulator, k = 170, 0
    while len(samples) < count:
        raw = T0 + k * PERIOD
        ticks = 12_345 + k * 5000
        truth.append({"index": k, "raw_ns": raw, "tmst_low16": ticks & 0xFFFF, "edge": "raised",
                      "irq_latency_ns": LATENCY})
        accumulator += 30
        if accumulator >= 200:
            accumulator -= 200
            i = len(samples)
            shifted = (lost_edge_from is not None and i >= lost_edge_from) or i == outlier_at
            samples.append({"sample_index": i, "mapped_timestamp_raw_ns": raw + mapped_error(i),
                            "event_timestamp_raw_ns": raw + LATENCY + (PERIOD if shifted else 0),
                            "fifo_timestamp_low16": ticks & 0xFFFF, "phase_uncertainty_us": 12})
        k += 1
    # the board keeps producing after the tool stops
    for extra in range(k, k + 10):
        truth.append({"index": extra, "raw_ns": T0 + extra * PERIOD, "tmst_low16": (12_345 + extra * 5000) & 0xFFFF,
                      "edge": "raised", "irq_latency_ns": LATENCY})
    return samples, truth


def pattern(i):
    return (i % 5) * 1000 - 2000   # -2, -1, 0, +1, +2 us


class Figures(unittest.TestCase):
    def test_errors_and_intervals_against_truth(self):
        samples, truth = synthetic_run(mapped_error=pattern)
        result = report.analyse(samples, truth, report.sensor_period_ns(samples, truth))
        self.assertEqual(result["period_ns"], PERIOD)
        self.assertEqual(result["unmatched"], 0)
        # |errors|: eight 0 us, sixteen 1 us, sixteen 2 us
        self.assertEqual((result["mapped"]["count"], result["mapped"]["median"], result["mapped"]["p99"],
                          result["mapped"]["max"], result["mapped"]["mean"]), (40, 1000, 2000, 2000, 0))
        self.assertEqual(result["event"]["median"], LATENCY)
        self.assertEqual(result["event"]["mean"], LATENCY)
        # interval errors: +1 us four times, then -4 us, repeating
        self.assertEqual(sorted(set(result["mapped_interval_errors"])), [-4000, 1000])
        self.assertEqual(result["mapped_interval"]["max"], 4000)
        self.assertEqual(result["event_interval"]["max"], 0)
        self.assertEqual(result["segments"], [])
        self.assertEqual(result["truly_mispaired"], [])

    def test_nearest_rank_percentile_and_median(self):
        s = report.summarize(list(range(1, 201)))       # 1..200 ns
        self.assertEqual((s["median"], s["p99"], s["max"]), (100.5, 198, 200))
        self.assertEqual(report.summarize([-7])["median"], 7)
        self.assertIsNone(report.summarize([])["p99"])

    def test_sample_far_from_its_truth_stays_unmatched(self):
        samples, truth = synthetic_run(count=10, mapped_error=lambda i: 3_000_000 if i == 4 else 0)
        result = report.analyse(samples, truth, PERIOD)
        self.assertEqual(result["unmatched"], 1)
        self.assertEqual(result["mapped"]["max"], 0)


class Mispairing(unittest.TestCase):
    def test_lost_edge_flagged_from_the_first_shifted_sample(self):
        samples, truth = synthetic_run(lost_edge_from=25, outlier_at=9)
        result = report.analyse(samples, truth, PERIOD)
        self.assertEqual(len(result["segments"]), 1)
        seg = result["segments"][0]
        self.assertEqual((seg["first"], seg["last"], seg["count"], seg["periods"]), (25, 39, 15, 1))
        self.assertEqual(result["outliers"], 1)
        self.assertEqual(result["truly_mispaired"], [9] + list(range(25, 40)))
        text = report.render_report(result, "s.csv", "t.csv")
        self.assertIn("MISPAIRED EVENTS: from sample 25 on", text)
        self.assertIn("+1 sensor period off", text)
        self.assertIn("16 samples carry another sample's event stamp, the first at sample 9", text)

    def test_step_back_and_short_run_at_the_end(self):
        samples, _ = synthetic_run(count=20, lost_edge_from=5)
        for s in samples[12:19]:                       # re-paired after a resync...
            s["event_timestamp_raw_ns"] -= PERIOD
        samples[19]["event_timestamp_raw_ns"] -= 2 * PERIOD   # ...and an extra edge at the very end
        segments, outliers = report.find_mispairing(samples, PERIOD)
        self.assertEqual([(s["first"], s["last"], s["periods"]) for s in segments], [(5, 11, 1), (19, 19, -1)])
        self.assertEqual(outliers, 0)

    def test_without_truth_period_comes_from_the_rate(self):
        samples, _ = synthetic_run(lost_edge_from=30)
        self.assertEqual(report.sensor_period_ns(samples, None), PERIOD)
        result = report.analyse(samples, None, PERIOD)
        self.assertEqual(result["segments"][0]["first"], 30)
        self.assertNotIn("ground truth", report.render_report(result, "s.csv", None))


class CommandLine(unittest.TestCase):
    def write(self, directory, name, rows):
        path = os.path.join(directory, name)
        with open(path, "w", newline="") as f:
            writer = csv.DictWriter(f, fieldnames=list(rows[0].keys()))
            writer.writeheader()
            writer.writerows(rows)
        return path

    def run_main(self, args):
        out, err = io.StringIO(), io.StringIO()
        with contextlib.redirect_stdout(out), contextlib.redirect_stderr(err):
            code = report.main(args)
        return code, out.getvalue(), err.getvalue()

    def test_table_and_plot_from_files(self):
        samples, truth = synthetic_run(mapped_error=pattern, lost_edge_from=33)
        with tempfile.TemporaryDirectory() as d:
            s_path, t_path = self.write(d, "s.csv", samples), self.write(d, "t.csv", truth)
            args = [s_path, t_path]
            try:
                import matplotlib  # noqa: F401
                args += ["--plot", os.path.join(d, "p.png")]
            except ImportError:
                pass
            code, out, err = self.run_main(args)
            self.assertEqual(code, 0, err)
            self.assertRegex(out, r"mapped_timestamp_raw_ns - truth\s+40\s+\+0\.0\s+1\.0\s+2\.0\s+2\.0")
            self.assertIn("from sample 33 on", out)
            if "--plot" in args:
                with open(os.path.join(d, "p.png"), "rb") as f:
                    self.assertEqual(f.read(8), b"\x89PNG\r\n\x1a\n")

    def test_side_by_side_puts_each_recording_in_its_column(self):
        clean, truth = synthetic_run(mapped_error=pattern)
        slipped, _ = synthetic_run(lost_edge_from=10)
        with tempfile.TemporaryDirectory() as d:
            t_path = self.write(d, "t.csv", truth)
            code, out, err = self.run_main(["--compare", f"clean={self.write(d, 'a.csv', clean)},{t_path}",
                                            "--compare", f"slipped={self.write(d, 'b.csv', slipped)},{t_path}",
                                            "--compare", f"no-truth={self.write(d, 'c.csv', clean)}"])
            self.assertEqual(code, 0, err)
            self.assertRegex(out, r"\s+clean\s+slipped\s+no-truth\n")
            self.assertRegex(out, r"mapped - truth max\|\.\|\s+2\.0\s+0\.0\s+-\n")
            self.assertRegex(out, r"mispaired \(ground truth\)\s+0\s+30\s+-\n")
            self.assertRegex(out, r"mispairing flagged from sample\s+none\s+10\s+none\n")
            code, _, err = self.run_main(["--compare", "nolabel"])
            self.assertEqual(code, 1)
            self.assertIn("LABEL=SAMPLES[,TRUTH]", err)


if __name__ == "__main__":
    unittest.main(verbosity=2)
