"""A long fit can be interrupted with Ctrl-C, and Python keeps running while
the engine computes."""

import os
import signal
import threading
import time

import numpy as np
import pytest

import veltancmat


@pytest.fixture(scope="module")
def large():
    # About ten seconds of work on two cores when run to the end.
    rng = np.random.default_rng(7)
    return rng.standard_normal((3000, 300)) + rng.standard_normal((3000, 1))


def interrupt_after(seconds):
    timer = threading.Timer(seconds, os.kill, (os.getpid(), signal.SIGINT))
    timer.start()
    return timer


@pytest.mark.parametrize("fit", [
    lambda x: veltancmat.PCA(n_components=10).fit(x),
    lambda x: veltancmat.PLS(n_components=25).fit(x[:, 40:], x[:, :40]),
], ids=["pca", "pls"])
def test_sigint_breaks_the_fit(large, fit):
    timer = interrupt_after(0.5)
    start = time.monotonic()
    try:
        with pytest.raises(KeyboardInterrupt):
            fit(large)
    finally:
        timer.cancel()
        timer.join()
    assert time.monotonic() - start < 4.0
    # The engine is left usable.
    assert veltancmat.PCA(n_components=1).fit(large[:50, :5]).n_components_ == 1


def test_own_handler_exception_surfaces(large):
    class Stop(Exception):
        pass

    def handler(signum, frame):
        raise Stop("stopped by the test")

    previous = signal.signal(signal.SIGINT, handler)
    try:
        timer = interrupt_after(0.3)
        try:
            with pytest.raises(Stop, match="stopped by the test"):
                veltancmat.PCA(n_components=10).fit(large)
        finally:
            timer.cancel()
            timer.join()
    finally:
        signal.signal(signal.SIGINT, previous)


def test_other_threads_run_during_a_fit(large):
    ticks = []
    done = threading.Event()

    def count():
        while not done.is_set():
            ticks.append(1)
            time.sleep(0.01)

    counter = threading.Thread(target=count)
    counter.start()
    try:
        start = time.monotonic()
        veltancmat.PCA(n_components=1).fit(large[:, :150])
        elapsed = time.monotonic() - start
    finally:
        done.set()
        counter.join()
    # With the GIL held for the whole fit the counter would stand still.
    assert len(ticks) >= min(5, int(elapsed / 0.02))
