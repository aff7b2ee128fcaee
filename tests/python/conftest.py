import pathlib

import numpy as np
import pytest

DATA = pathlib.Path(__file__).resolve().parents[2] / "data"


@pytest.fixture(scope="session")
def wine():
    """The bundled wine table: 178 x 13, no missing cell."""
    return np.loadtxt(DATA / "wine.csv", delimiter=",", skiprows=1, usecols=range(1, 14))


@pytest.fixture
def rng():
    return np.random.default_rng(20261125)


def standardized(x):
    return (x - x.mean(axis=0)) / x.std(axis=0, ddof=1)


def assert_same_up_to_sign(a, b, rtol=1e-4, atol=1e-4):
    """Columns of a and b agree, each possibly with the opposite sign."""
    assert a.shape == b.shape
    for j in range(a.shape[1]):
        sign = np.sign(np.dot(a[:, j], b[:, j])) or 1.0
        np.testing.assert_allclose(a[:, j], sign * b[:, j], rtol=rtol, atol=atol, err_msg=f"column {j}")
