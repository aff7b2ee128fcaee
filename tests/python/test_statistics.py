import numpy as np
import pytest
import scipy.stats
from scipy.cluster import hierarchy

import veltancmat


class TestShapiro:
    @pytest.mark.parametrize("n", [3, 4, 11, 50, 400, 4999])
    @pytest.mark.parametrize("draw", ["normal", "exponential"])
    def test_against_scipy(self, rng, n, draw):
        x = getattr(rng, draw)(size=n)
        w, p = veltancmat.shapiro(x)
        ref = scipy.stats.shapiro(x)
        # SciPy computes in single precision.
        assert w == pytest.approx(ref.statistic, abs=2e-5)
        assert p == pytest.approx(ref.pvalue, rel=5e-3, abs=2e-5)

    def test_missing_values_are_skipped(self, rng):
        x = rng.normal(size=30)
        holes = np.concatenate([x, [np.nan, np.nan]])
        assert veltancmat.shapiro(holes) == pytest.approx(veltancmat.shapiro(x))

    def test_undefined(self):
        with pytest.raises(ValueError, match="at least 3"):
            veltancmat.shapiro([1.0, np.nan, 2.0])
        with pytest.raises(ValueError, match="all values are equal"):
            veltancmat.shapiro(np.ones(10))
        with pytest.raises(ValueError, match="1-D"):
            veltancmat.shapiro(np.ones((3, 3)))


class TestFisherExact:
    @pytest.mark.parametrize("table", [[[3, 1], [1, 3]], [[8, 2], [1, 5]], [[0, 10], [12, 3]], [[20, 25], [30, 18]]])
    @pytest.mark.parametrize("alternative", ["two-sided", "less", "greater"])
    def test_two_by_two_against_scipy(self, table, alternative):
        ref = scipy.stats.fisher_exact(table, alternative=alternative).pvalue
        assert veltancmat.fisher_exact(table, alternative) == pytest.approx(ref, rel=1e-9)

    def test_larger_table(self):
        # The network algorithm agrees with a direct sum for a 2 x 3 table:
        # the probabilities of all tables with these margins no likelier
        # than the observed one.
        table = np.array([[3, 1, 4], [2, 6, 1]])
        rows, cols = table.sum(axis=1), table.sum(axis=0)
        n = table.sum()

        def probability(t):
            from math import comb
            return comb(cols[0], t[0]) * comb(cols[1], t[1]) * comb(cols[2], t[2]) / comb(n, rows[0])

        observed = probability(table[0])
        total = 0.0
        for a in range(cols[0] + 1):
            for b in range(cols[1] + 1):
                c = rows[0] - a - b
                if 0 <= c <= cols[2]:
                    pr = probability((a, b, c))
                    total += pr if pr <= observed * (1 + 1e-12) else 0.0
        assert veltancmat.fisher_exact(table) == pytest.approx(total, rel=1e-7)

    @pytest.mark.parametrize("table, message", [
        ([[1, -1], [2, 3]], "non-negative"),
        ([[1.5, 1], [2, 3]], "whole counts"),
        ([1, 2, 3], "2-D"),
        ([[1, 2, 3], [4, 5, 6]], None),
    ])
    def test_refused(self, table, message):
        if message is None:
            with pytest.raises(ValueError, match="2 x 2"):
                veltancmat.fisher_exact(table, "less")
        else:
            with pytest.raises(ValueError, match=message):
                veltancmat.fisher_exact(table)


class TestLinkage:
    @pytest.mark.parametrize("method", ["ward", "single"])
    def test_against_scipy(self, rng, method):
        x = rng.normal(size=(60, 5)).astype(np.float32).astype(np.float64)
        x[:20] += 4.0
        ours = veltancmat.linkage(x, method)
        theirs = hierarchy.linkage(x, method)
        assert ours.shape == (59, 4)
        np.testing.assert_allclose(ours[:, 2], theirs[:, 2], rtol=1e-5)
        np.testing.assert_array_equal(ours[:, 3], theirs[:, 3])
        for k in (2, 3, 5):
            a = hierarchy.fcluster(ours, k, "maxclust")
            b = hierarchy.fcluster(theirs, k, "maxclust")
            assert len(set(zip(a, b))) == k  # the same partition, labels aside

    def test_is_a_valid_linkage_that_scipy_draws(self, wine):
        z = veltancmat.linkage(wine[:, :4])
        assert hierarchy.is_valid_linkage(z) and hierarchy.is_monotonic(z)
        drawing = hierarchy.dendrogram(z, no_plot=True)
        assert sorted(drawing["leaves"]) == list(range(178))

    def test_refused(self):
        with pytest.raises(ValueError, match="method"):
            veltancmat.linkage(np.ones((4, 2)), "average")
        with pytest.raises(ValueError, match="at least 2 rows"):
            veltancmat.linkage(np.ones((1, 2)))


class TestSavgolFilter:
    @pytest.fixture
    def series(self, rng):
        t = np.linspace(0.0, 6.0, 80)
        return np.sin(t) + 0.1 * rng.normal(size=t.size)

    @pytest.mark.parametrize("window, order, deriv", [(5, 2, 0), (11, 3, 0), (11, 3, 1), (21, 4, 2), (7, 0, 0)])
    def test_against_scipy(self, series, window, order, deriv):
        from scipy.signal import savgol_filter

        ours = veltancmat.savgol_filter(series, window, order, deriv=deriv, delta=0.075)
        theirs = savgol_filter(series, window, order, deriv=deriv, delta=0.075, mode="interp")
        np.testing.assert_allclose(ours, theirs, atol=2e-5 * max(1.0, np.abs(theirs).max()))

    def test_ends_without_edges_are_missing(self, series):
        smooth = veltancmat.savgol_filter(series, 7, 2, edges=False)
        assert np.all(np.isnan(smooth[:3])) and np.all(np.isnan(smooth[-3:]))
        assert np.all(np.isfinite(smooth[3:-3]))

    def test_gap_is_left_out_of_its_windows(self, series):
        # A window with a gap is the least-squares polynomial of its present
        # points, evaluated at the centre.
        holed = series.copy()
        holed[40] = np.nan
        smooth = veltancmat.savgol_filter(holed, 9, 2)
        assert np.isfinite(smooth[40])
        for centre in (37, 40, 44):
            offsets = np.arange(-4, 5)
            values = holed[centre + offsets]
            present = ~np.isnan(values)
            fit = np.polyfit(offsets[present], values[present], 2)
            assert smooth[centre] == pytest.approx(np.polyval(fit, 0.0), abs=1e-5)

    @pytest.mark.parametrize("kwargs, message", [
        ({"window_length": 6, "polyorder": 2}, "odd"),
        ({"window_length": 3, "polyorder": 3}, "greater than polyorder"),
        ({"window_length": 5, "polyorder": 2, "deriv": 3}, "deriv=3"),
        ({"window_length": 5, "polyorder": 2, "delta": 0.0}, "delta"),
        ({"window_length": 101, "polyorder": 2}, "fewer than window_length"),
    ])
    def test_refused(self, series, kwargs, message):
        with pytest.raises(ValueError, match=message):
            veltancmat.savgol_filter(series, **kwargs)
