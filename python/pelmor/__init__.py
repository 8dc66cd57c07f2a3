"""Samples from the ICM-42688 driver library libpelmor.so.2, through ctypes.

    import pelmor

    with pelmor.Driver(rate_hz=30) as imu:
        for s in imu.samples(count=300):
            print(s.mapped_timestamp_raw_ns, s.accel_mps2)

Leaving the ``with`` block, or a KeyboardInterrupt inside it, stops the driver.
A failing call raises PelmorError; when a start fails, the driver has already
written its one-line reason on stderr.
"""

import ctypes
import os
import queue
from typing import Dict, Iterator, NamedTuple, Optional, Tuple

__all__ = ["Driver", "Sample", "PelmorError", "FLAG_PAIRING_CHECK", "FLAG_BRACKET_FIT", "version"]

FLAG_PAIRING_CHECK = 0x1
FLAG_BRACKET_FIT = 0x2

_OK = 0


class PelmorError(Exception):
    """A library call failed; ``status`` is its code, the message names the call."""

    def __init__(self, message: str, status: int = 0):
        super().__init__(message)
        self.status = status


class _Config(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_uint32),
        ("sample_rate_hz", ctypes.c_uint32),
        ("mode", ctypes.c_uint32),
        ("flags", ctypes.c_uint32),
        ("strict_timing", ctypes.c_uint32),
        ("reserved", ctypes.c_uint32 * 7),
    ]


class _Sample(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_uint32),
        ("tmst_wrap_count", ctypes.c_uint32),
        ("event_timestamp_raw_ns", ctypes.c_uint64),
        ("temperature_c", ctypes.c_double),
        ("accel_mps2", ctypes.c_double * 3),
        ("gyro_radps", ctypes.c_double * 3),
        ("raw_words", ctypes.c_int16 * 7),
        ("fifo_timestamp_low16", ctypes.c_uint16),
        ("mapped_timestamp_raw_ns", ctypes.c_uint64),
        ("sample_index", ctypes.c_uint64),
        ("phase_uncertainty_us", ctypes.c_uint32),
        ("boundary_resyncs", ctypes.c_uint32),
        ("batch_failures", ctypes.c_uint32),
        ("total_drops", ctypes.c_uint32),
    ]


class _Health(ctypes.Structure):
    _fields_ = [
        ("struct_size", ctypes.c_uint32),
        ("epoch", ctypes.c_uint32),
        ("samples_delivered", ctypes.c_uint64),
        ("boundary_resyncs", ctypes.c_uint32),
        ("batch_failures", ctypes.c_uint32),
        ("total_drops", ctypes.c_uint32),
        ("uncertainty_over_200_drops", ctypes.c_uint32),
        ("max_consecutive_drops", ctypes.c_uint32),
        ("reserved0", ctypes.c_uint32),
        ("reserved1", ctypes.c_uint64),
    ]


# The header's own layout checks, repeated here so a mismatch fails at import.
assert ctypes.sizeof(_Config) == 48 and ctypes.sizeof(_Sample) == 120 and ctypes.sizeof(_Health) == 48

_Callback = ctypes.CFUNCTYPE(None, ctypes.POINTER(_Sample), ctypes.c_void_p)


class Sample(NamedTuple):
    """One delivered sample; timestamps are CLOCK_MONOTONIC_RAW nanoseconds."""

    sample_index: int
    mapped_timestamp_raw_ns: int
    event_timestamp_raw_ns: int
    phase_uncertainty_us: int
    accel_mps2: Tuple[float, float, float]
    gyro_radps: Tuple[float, float, float]
    temperature_c: float
    raw_words: Tuple[int, ...]
    fifo_timestamp_low16: int
    tmst_wrap_count: int
    boundary_resyncs: int
    batch_failures: int
    total_drops: int


def _load(path: Optional[str]) -> ctypes.CDLL:
    lib = ctypes.CDLL(path or os.environ.get("PELMOR_LIBRARY") or "libpelmor.so.2")
    handle = ctypes.c_void_p
    signatures = {
        "pelmor_create": (ctypes.c_int32, [ctypes.POINTER(_Config), ctypes.POINTER(handle)]),
        "pelmor_start": (ctypes.c_int32, [handle]),
        "pelmor_stop": (ctypes.c_int32, [handle]),
        "pelmor_destroy": (None, [handle]),
        "pelmor_set_callback": (ctypes.c_int32, [handle, _Callback, ctypes.c_void_p]),
        "pelmor_is_running": (ctypes.c_int32, [handle]),
        "pelmor_get_version": (ctypes.c_char_p, []),
        "pelmor_status_message": (ctypes.c_char_p, [ctypes.c_int32]),
        "pelmor_get_runtime_health": (ctypes.c_int32, [handle, ctypes.POINTER(_Health)]),
    }
    for name, (restype, argtypes) in signatures.items():
        function = getattr(lib, name)
        function.restype = restype
        function.argtypes = argtypes
    return lib


def version(library: Optional[str] = None) -> str:
    """The library's version, e.g. "1.1.0"."""
    return _load(library).pelmor_get_version().decode()


class Driver:
    """One driver instance. ``with Driver(...) as imu`` starts it and always stops it.

    Samples arrive on the driver's real-time thread and wait in a queue of
    ``queue_size``; when the reader falls that far behind, the newest are
    dropped and counted in ``overruns``.
    """

    def __init__(self, rate_hz: int = 30, flags: int = 0, strict_timing: bool = False,
                 library: Optional[str] = None, queue_size: int = 1024):
        self._lib = _load(library)
        self._queue: "queue.Queue[Sample]" = queue.Queue(maxsize=queue_size)
        self.overruns = 0
        self._handle = ctypes.c_void_p()
        config = _Config(struct_size=ctypes.sizeof(_Config), sample_rate_hz=rate_hz, mode=1, flags=flags,
                         strict_timing=1 if strict_timing else 0)
        self._check("pelmor_create", self._lib.pelmor_create(ctypes.byref(config), ctypes.byref(self._handle)))
        # Kept referenced for as long as the library may call it.
        self._callback = _Callback(self._on_sample)
        self._check("pelmor_set_callback", self._lib.pelmor_set_callback(self._handle, self._callback, None))

    def _check(self, call: str, status: int) -> None:
        if status != _OK:
            text = self._lib.pelmor_status_message(status).decode()
            raise PelmorError(f"{call} failed: {text} ({status})", status)

    def _on_sample(self, pointer, _user) -> None:
        s = pointer.contents
        try:
            self._queue.put_nowait(Sample(
                s.sample_index, s.mapped_timestamp_raw_ns, s.event_timestamp_raw_ns, s.phase_uncertainty_us,
                tuple(s.accel_mps2), tuple(s.gyro_radps), s.temperature_c, tuple(s.raw_words),
                s.fifo_timestamp_low16, s.tmst_wrap_count, s.boundary_resyncs, s.batch_failures, s.total_drops))
        except queue.Full:
            self.overruns += 1

    @property
    def running(self) -> bool:
        return bool(self._handle) and self._lib.pelmor_is_running(self._handle) == 1

    def start(self) -> None:
        self._check("pelmor_start", self._lib.pelmor_start(self._handle))

    def stop(self) -> None:
        if self._handle:
            self._check("pelmor_stop", self._lib.pelmor_stop(self._handle))

    def close(self) -> None:
        """Stops the driver and frees it; the instance is unusable afterwards."""
        if self._handle:
            self._lib.pelmor_destroy(self._handle)
            self._handle = ctypes.c_void_p()

    def __enter__(self) -> "Driver":
        try:
            self.start()
        except BaseException:
            self.close()
            raise
        return self

    def __exit__(self, *_exc) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", None):
            self.close()

    def health(self) -> Dict[str, int]:
        """Counters of the last finished run (after a stop)."""
        record = _Health(struct_size=ctypes.sizeof(_Health))
        self._check("pelmor_get_runtime_health", self._lib.pelmor_get_runtime_health(self._handle, ctypes.byref(record)))
        return {name: getattr(record, name) for name, _ in _Health._fields_
                if name not in ("struct_size", "reserved0", "reserved1")}

    def samples(self, count: Optional[int] = None, timeout: float = 2.0) -> Iterator[Sample]:
        """Yields samples as they arrive, ``count`` of them or until the driver stops.

        Raises PelmorError when the worker ended by itself (its reason is on
        stderr), TimeoutError when no sample came for ``timeout`` seconds.
        """
        delivered = 0
        waited = 0.0
        poll = 0.05  # short waits, so that Ctrl-C is seen at once
        while count is None or delivered < count:
            try:
                sample = self._queue.get(timeout=poll)
            except queue.Empty:
                if not self.running:
                    raise PelmorError("the driver's worker ended by itself; its reason is on stderr") from None
                waited += poll
                if waited >= timeout:
                    raise TimeoutError(f"no sample for {timeout} s") from None
                continue
            waited = 0.0
            delivered += 1
            yield sample

    def read_arrays(self, count: int, timeout: float = 2.0) -> Dict[str, "object"]:
        """The next ``count`` samples as numpy arrays, one per field (needs numpy).

        Vectors are (count, 3) arrays; timestamps and counters are uint64.
        """
        import numpy as np  # only this method needs it

        arrays = {
            "sample_index": np.empty(count, np.uint64),
            "mapped_timestamp_raw_ns": np.empty(count, np.uint64),
            "event_timestamp_raw_ns": np.empty(count, np.uint64),
            "phase_uncertainty_us": np.empty(count, np.uint32),
            "accel_mps2": np.empty((count, 3), np.float64),
            "gyro_radps": np.empty((count, 3), np.float64),
            "temperature_c": np.empty(count, np.float64),
        }
        for row, s in enumerate(self.samples(count, timeout)):
            for name, array in arrays.items():
                array[row] = getattr(s, name)
        return arrays
