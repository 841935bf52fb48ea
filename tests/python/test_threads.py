"""Long calls release the GIL, honour threads= and report progress; Ctrl-C and a
callback returning False stop them between rows."""

import _thread
import threading
import time

import numpy as np
import pytest

import kagrid

RNG = np.random.default_rng(7)
N = 20000
PX, PY, PZ = RNG.uniform(0, 1, N), RNG.uniform(0, 1, N), RNG.uniform(0, 100, N)
LONG = dict(size=(1200, 1200), radius1=0.05, radius2=0.05, maxFromAll=64, maxFromEach=64, threads=1)


def test_other_python_threads_run_during_a_grid():
    ticks = []
    stop = threading.Event()

    def count():
        while not stop.is_set():
            ticks.append(time.perf_counter())
            time.sleep(0.001)

    worker = threading.Thread(target=count)
    worker.start()
    try:
        start = time.perf_counter()
        kagrid.grid("inverse-distance", PX, PY, PZ, **LONG)
        end = time.perf_counter()
    finally:
        stop.set()
        worker.join()
    during = [t for t in ticks if start + 0.1 * (end - start) < t < end - 0.1 * (end - start)]
    assert end - start > 0.2, "the grid was too short to tell"
    # Sleeping 1 ms a tick, the thread gets far more than a few ticks in unless the GIL is held.
    assert len(during) > 0.2 * (0.8 * (end - start)) / 0.001, (len(during), end - start)


def test_threads_do_not_change_the_grid():
    kw = dict(LONG, size=(200, 150))
    a = kagrid.grid("kriging", PX[:3000], PY[:3000], PZ[:3000], **{**kw, "threads": 1})
    b = kagrid.grid("kriging", PX[:3000], PY[:3000], PZ[:3000], **{**kw, "threads": 2})
    np.testing.assert_array_equal(a.z.values, b.z.values)


def test_progress_callback_and_stop():
    seen = []
    kagrid.grid("inverse-distance", PX, PY, PZ, progress=lambda p: seen.append(p), **LONG)
    assert seen and seen == sorted(seen) and 0 <= seen[0] and seen[-1] <= 100
    calls = []

    def stop_early(percent):
        calls.append(percent)
        return percent < 5

    start = time.perf_counter()
    with pytest.raises(kagrid.Cancelled):
        kagrid.grid("inverse-distance", PX, PY, PZ, progress=stop_early, **LONG)
    assert max(calls) < 100


def test_callback_exception_propagates():
    def fail(percent):
        raise ZeroDivisionError("from the callback")

    with pytest.raises(ZeroDivisionError, match="from the callback"):
        kagrid.grid("inverse-distance", PX, PY, PZ, progress=fail, **LONG)


def test_ctrl_c_stops_between_rows():
    full_start = time.perf_counter()
    kagrid.grid("inverse-distance", PX, PY, PZ, **LONG)
    full = time.perf_counter() - full_start
    timer = threading.Timer(0.1 * full, _thread.interrupt_main)
    timer.start()
    start = time.perf_counter()
    with pytest.raises(KeyboardInterrupt):
        kagrid.grid("inverse-distance", PX, PY, PZ, **LONG)
        time.sleep(5)  # not reached when the grid stopped
    timer.join()
    assert time.perf_counter() - start < 0.8 * full + 0.3


def test_progress_true_draws_a_tqdm_bar(capsys):
    pytest.importorskip("tqdm")
    kagrid.grid("inverse-distance", PX, PY, PZ, progress=True, **dict(LONG, size=(300, 300)))
    err = capsys.readouterr().err
    assert "kagrid inverse-distance" in err and "100/100" in err
