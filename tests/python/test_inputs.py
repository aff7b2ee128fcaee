"""What the boundary accepts and refuses: every bad input is a Python
exception with a message, never a crash or a silent change."""

import numpy as np
import pytest

import veltancmat


@pytest.fixture(scope="module")
def x(wine):
    return wine[:60, :6].copy()


class TestReservedValue:
    def test_minus_99_is_refused_with_its_position(self, x):
        bad = x.copy()
        bad[7, 3] = -99.0
        with pytest.raises(ValueError, match=r"X\[7, 3\] is -99.*NaN"):
            veltancmat.PCA().fit(bad)

    @pytest.mark.parametrize("dtype", [np.float32, np.int64])
    def test_minus_99_in_other_dtypes(self, x, dtype):
        bad = x.astype(dtype)
        bad[0, 0] = -99
        with pytest.raises(ValueError, match="-99"):
            veltancmat.PCA().fit(bad)

    def test_minus_99_in_responses_and_new_rows(self, x):
        y = x[:, 0].copy()
        y[5] = -99.0
        with pytest.raises(ValueError, match=r"Y\[5, 0\] is -99"):
            veltancmat.PLS().fit(x[:, 1:], y)
        model = veltancmat.PCA(n_components=1).fit(x)
        with pytest.raises(ValueError, match="-99"):
            model.transform(np.full((1, 6), -99.0))

    def test_close_to_minus_99_passes(self, x):
        near = x.copy()
        near[0, 0] = -99.0001
        veltancmat.PCA(n_components=1).fit(near)

    def test_minus_99_in_statistics(self):
        with pytest.raises(ValueError, match=r"x\[2\] is -99"):
            veltancmat.shapiro([1.0, 2.0, -99.0, 4.0])


class TestNonFiniteAndRange:
    @pytest.mark.parametrize("value", [np.inf, -np.inf, 1e40])
    def test_refused(self, x, value):
        bad = x.copy()
        bad[2, 1] = value
        with pytest.raises(ValueError, match=r"X\[2, 1\].*single-precision"):
            veltancmat.PCA().fit(bad)

    def test_nan_is_missing(self, x):
        holes = x.copy()
        holes[3, 2] = np.nan
        model = veltancmat.PCA(n_components=2).fit(holes)
        assert np.all(np.isfinite(model.scores_))


class TestShapesAndTypes:
    @pytest.mark.parametrize("bad, error, message", [
        (np.ones(10), ValueError, "2-D array.*got 1-D.*reshape"),
        (np.ones((2, 3, 4)), ValueError, "2-D array.*got 3-D"),
        (np.ones((0, 4)), ValueError, "empty"),
        (np.ones((5, 0)), ValueError, "empty"),
        (np.array([["a", "b"], ["c", "d"]]), TypeError, "real numbers.*<U1"),
        (np.array([[1, None], [2, 3]], dtype=object), TypeError, "real numbers.*object"),
        (np.ones((3, 3), dtype=complex), TypeError, "real numbers"),
        ("text", TypeError, "real numbers"),
    ])
    def test_refused(self, bad, error, message):
        with pytest.raises(error, match=message):
            veltancmat.PCA().fit(bad)

    def test_too_few_rows(self):
        with pytest.raises(ValueError, match="1 row and 3 columns"):
            veltancmat.PCA().fit(np.ones((1, 3)))

    def test_dtypes_and_layouts_agree(self, x):
        reference = veltancmat.PCA(n_components=2).fit(x).scores_
        for variant in (x.astype(np.float32), np.asfortranarray(x), x.tolist(),
                        x.astype(x.dtype.newbyteorder())):
            np.testing.assert_allclose(veltancmat.PCA(n_components=2).fit(variant).scores_, reference, atol=1e-5)

    def test_integer_and_boolean_arrays(self):
        counts = np.arange(40).reshape(10, 4) % 7
        veltancmat.PCA(n_components=1).fit(counts)
        veltancmat.PCA(n_components=1, scale="none").fit(counts > 2)

    def test_non_contiguous_views(self, wine):
        view = wine[::2, ::3]
        assert not view.flags["C_CONTIGUOUS"]
        np.testing.assert_allclose(veltancmat.PCA(n_components=2).fit(view).scores_,
                                   veltancmat.PCA(n_components=2).fit(view.copy()).scores_)
        reversed_rows = wine[::-1]
        np.testing.assert_allclose(veltancmat.PCA(n_components=2).fit(reversed_rows).scores_[::-1],
                                   veltancmat.PCA(n_components=2).fit(wine).scores_, atol=1e-5)

    def test_input_is_not_written(self, x):
        given = x.copy()
        given[1, 1] = np.nan
        before = given.copy()
        veltancmat.PLS(n_components=1).fit(given[:, 1:], given[:, 0]).predict(given[:, 1:])
        np.testing.assert_array_equal(given, before)
