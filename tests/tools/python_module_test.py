"""The pelmor Python module on the virtual board: each case is a Python program
run through tools/pelmor-vboard with the built library.

usage: python_module_test.py LAUNCHER BOARD_LIB LIBRARY PYTHON_DIR
"""

import os
import re
import subprocess
import sys
import textwrap
import unittest

LAUNCHER, BOARD, LIBRARY, PYTHON_DIR = sys.argv[1:5]
del sys.argv[1:5]

# A start refused for timing (a clock bracket a busy machine stretched, or no INT1
# edge in time) is tried again, as a user would.
TIMING_REFUSAL = re.compile(r"start failed: (failed to establish TMST|failed to refresh TMST|GPIO395 boundary event)")


def run_case(code, *board_options):
    env = {k: v for k, v in os.environ.items() if not k.startswith("PELMOR_VBOARD_")}
    env.update(PELMOR_LIBRARY=LIBRARY, PYTHONPATH=PYTHON_DIR)
    command = [LAUNCHER, "--board", BOARD, *board_options, "--", sys.executable, "-c",
               "import pelmor\n" + textwrap.dedent(code)]
    for _ in range(3):
        done = subprocess.run(command, env=env, capture_output=True, text=True, timeout=120)
        if not (done.returncode != 0 and TIMING_REFUSAL.search(done.stderr)):
            break
    return done


class PythonModule(unittest.TestCase):
    def expect_ok(self, done, last_line):
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout.strip().splitlines()[-1], last_line, done.stdout)

    def test_streams_samples_in_order_and_reports_health(self):
        done = run_case("""
            with pelmor.Driver(rate_hz=30) as imu:
                got = list(imu.samples(count=20))
                assert imu.running
            assert [s.sample_index for s in got] == list(range(20)), [s.sample_index for s in got]
            stamps = [s.mapped_timestamp_raw_ns for s in got]
            assert all(29_000_000 < b - a < 36_000_000 for a, b in zip(stamps, stamps[1:])), stamps
            assert all(abs(s.accel_mps2[2] - 9.80665) < 0.01 and s.phase_uncertainty_us <= 200 for s in got)
            assert len(got[0].raw_words) == 7 and got[0].total_drops == 0

            imu = pelmor.Driver(rate_hz=25)
            imu.start()
            next(imu.samples())
            imu.stop()
            health = imu.health()
            imu.close()
            assert health["epoch"] == 1 and health["samples_delivered"] >= 1, health
            print("version", pelmor.version())
        """)
        self.expect_ok(done, "version 1.1.0")

    def test_failures_raise_with_the_status_text(self):
        done = run_case("""
            try:
                pelmor.Driver(rate_hz=50)
            except pelmor.PelmorError as error:
                print(error, error.status)
            try:
                with pelmor.Driver() as imu:
                    raise AssertionError("started without spidev")
            except pelmor.PelmorError as error:
                print(error, error.status)
        """, "--no-spidev")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout.splitlines(), ["pelmor_create failed: invalid argument (-1) -1",
                                                    "pelmor_start failed: I/O error (-3) -3"])
        self.assertIn("ICM-42688 start failed: ", done.stderr)

    def test_worker_that_ends_by_itself_raises(self):
        done = run_case("""
            try:
                with pelmor.Driver(rate_hz=30) as imu:
                    for _ in imu.samples(timeout=30):
                        pass
            except pelmor.PelmorError as error:
                print(error)
        """, "--faults", "sentinel:nth=200")
        self.expect_ok(done, "the driver's worker ended by itself; its reason is on stderr")

    def test_keyboard_interrupt_stops_the_driver(self):
        done = run_case("""
            import os, signal
            imu = pelmor.Driver(rate_hz=30)
            try:
                with imu:
                    for s in imu.samples():
                        if s.sample_index == 3:
                            os.kill(os.getpid(), signal.SIGINT)
            except KeyboardInterrupt:
                print("stopped", imu.running, bool(imu._handle))
        """)
        self.expect_ok(done, "stopped False False")
        # The driver's closing lines were written: it stopped, not merely went away.
        self.assertIn("TIMING_DROP_SUMMARY label=final", done.stderr)

    def test_numpy_arrays(self):
        done = run_case("""
            try:
                import numpy as np
            except ImportError:
                print("no numpy")
                raise SystemExit(0)
            with pelmor.Driver(rate_hz=30) as imu:
                a = imu.read_arrays(10)
            assert a["accel_mps2"].shape == (10, 3) and a["mapped_timestamp_raw_ns"].dtype == np.uint64
            assert (np.diff(a["sample_index"].astype(np.int64)) == 1).all()
            assert (np.diff(a["mapped_timestamp_raw_ns"].astype(np.int64)) > 0).all()
            print("arrays", len(a["temperature_c"]))
        """)
        self.expect_ok(done, "arrays 10")


if __name__ == "__main__":
    unittest.main(verbosity=2)
