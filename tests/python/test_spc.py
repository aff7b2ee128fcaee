"""Control charts, capability and histograms against hand computations with
NumPy and the published Shewhart factors."""

import json
import pathlib
import subprocess

import numpy as np
import pytest
import scipy.stats
from conftest import DATA

import veltancmat


def f32(x):
    """The values as the engine stores them, so that references see the same numbers."""
    return np.asarray(x, dtype=np.float32).astype(np.float64)


class TestShewhart:
    def test_individuals_against_moving_range(self, rng):
        x = f32(rng.normal(10.0, 2.0, 60))
        x[[7, 30]] = np.nan
        r = veltancmat.control_chart(x, "individual")
        present = x[~np.isnan(x)]
        ranges = np.abs(np.diff(x))
        sigma = np.nanmean(ranges) / 1.128  # neighbours of a gap are skipped
        assert r.sigma == pytest.approx(sigma, rel=1e-5)
        assert r.center == pytest.approx(present.mean(), rel=1e-6)
        assert (r.lcl, r.ucl) == pytest.approx((r.center - 3 * sigma, r.center + 3 * sigma), rel=1e-5)
        np.testing.assert_array_equal(r.means, x)
        assert r.violations.shape == (60, 0) and r.rules == []
        assert r.spread is None and r.spread_beyond is None and r.upper_cusum is None and r.ewma is None

    @pytest.mark.parametrize("chart, a, lower, upper, spread", [
        # n = 5: A2, D3, D4 and A3, B3, B4 as tabulated (ASTM STP 15D).
        ("mean-range", 0.577, 0.0, 2.114, lambda g: np.ptp(g, axis=1)),
        ("mean-sd", 1.427, 0.0, 2.089, lambda g: g.std(axis=1, ddof=1)),
    ])
    def test_subgroups_against_factors(self, rng, chart, a, lower, upper, spread):
        x = f32(rng.normal(50.0, 1.5, 103))  # a trailing incomplete subgroup is left out
        groups = x[:100].reshape(20, 5)
        r = veltancmat.control_chart(x, chart, 5)
        means, s = groups.mean(axis=1), spread(groups)
        np.testing.assert_allclose(r.means, means, rtol=1e-6)
        np.testing.assert_allclose(r.spread, s, rtol=1e-5)
        assert r.subgroup_size == 5
        assert r.center == pytest.approx(means.mean(), rel=1e-6)
        assert r.ucl - r.center == pytest.approx(a * s.mean(), rel=1e-4)
        assert (r.spread_lcl, r.spread_center, r.spread_ucl) == pytest.approx(
            (lower * s.mean(), s.mean(), upper * s.mean()), rel=1e-4)
        np.testing.assert_array_equal(r.spread_beyond, (s > r.spread_ucl) | (s < r.spread_lcl))

    def test_run_rules_flag_a_shift(self):
        # Flat noise, then the mean moves up by 2 sigma of the given process.
        x = np.tile([0.1, -0.1], 15)
        x[20:] += 2.0
        r = veltancmat.control_chart(x, "individual", target=0.0, sigma=1.0, rules="we")
        assert r.rules[0] == "1 point outside zone A" and len(r.rules) == 4
        assert not r.violations[:20].any()
        assert not r.violations[:, 0].any()  # nothing beyond 3 sigma
        # 2 of 3 beyond 2 sigma: 2.1 is, 1.9 is not; 9 on one side from the shift on.
        np.testing.assert_array_equal(np.flatnonzero(r.violations[:, 1]), [20, 22, 24, 26, 28])
        np.testing.assert_array_equal(np.flatnonzero(r.violations[:, 2]), np.arange(20, 30))
        np.testing.assert_array_equal(np.flatnonzero(r.violations[:, 3]), np.arange(20, 30))
        np.testing.assert_array_equal(r.flagged, np.arange(30) >= 20)

    def test_missing_values(self):
        x = np.array([1.0, 2.0, 3.0, np.nan, np.nan, np.nan, 2.0, np.nan, 4.0, 5.0, 1.0, 2.0])
        r = veltancmat.control_chart(x, "mean-range", 3)
        np.testing.assert_allclose(r.means, [2.0, np.nan, 3.0, 8.0 / 3.0], rtol=1e-6)
        np.testing.assert_array_equal(r.spread, [2.0, np.nan, 2.0, 4.0])

    def test_limits_from_a_reference_period(self, rng):
        phase1 = rng.normal(0.0, 1.0, 50)
        phase2 = rng.normal(3.0, 1.0, 50)
        reference = veltancmat.control_chart(phase1, "mean-sd", 5)
        r = veltancmat.control_chart(phase2, "mean-sd", 5, reference=phase1, rules="we")
        for name in ("center", "lcl", "ucl", "spread_center", "spread_lcl", "spread_ucl", "sigma"):
            assert r[name] == pytest.approx(reference[name], rel=1e-12), name
        np.testing.assert_allclose(r.means, f32(phase2).reshape(10, 5).mean(axis=1), rtol=1e-5)
        assert r.violations[:, 0].all()

    def test_interval_groups(self):
        times = np.arange(20.0)
        x = np.arange(20.0) ** 2
        r = veltancmat.control_chart(x, "individual", times=times, interval=5.0)
        np.testing.assert_allclose(r.means, x.reshape(4, 5).mean(axis=1))
        np.testing.assert_allclose(r.times, [2.0, 7.0, 12.0, 17.0])
        np.testing.assert_array_equal(r.sizes, [5, 5, 5, 5])
        # The library's average group size, documented to run short: 15 / 4.
        assert r.subgroup_size == 4
        half = 3 * np.mean(np.abs(np.diff(x))) / 1.128 / 2
        assert r.ucl - r.center == pytest.approx(half, rel=1e-5)


class TestCusumEwma:
    def test_cusum_against_recursion(self, rng):
        x = f32(rng.normal(0.0, 1.0, 80))
        x[60:] += 1.5
        r = veltancmat.control_chart(x, "cusum", 4)
        means = x.reshape(20, 4).mean(axis=1)
        sigma = np.sqrt(np.sum(np.diff(means) ** 2) / (2 * (len(means) - 1)))
        assert r.sigma == pytest.approx(sigma, rel=1e-5)
        assert (r.k, r.h) == pytest.approx((0.5 * sigma, 4.5 * sigma), rel=1e-5)
        high = low = 0.0
        uppers, lowers = [], []
        for m in means - r.center:
            high, low = max(0.0, high + m - r.k), max(0.0, low - m - r.k)
            uppers.append(high)
            lowers.append(low)
        np.testing.assert_allclose(r.upper_cusum, uppers, rtol=1e-4, atol=1e-5)
        np.testing.assert_allclose(r.lower_cusum, lowers, rtol=1e-4, atol=1e-5)
        np.testing.assert_array_equal(r.violations, np.column_stack([r.upper_cusum > r.h, r.lower_cusum > r.h]))
        assert r.violations[-1, 0] and np.isnan(r.lcl)

    @pytest.mark.parametrize("kind", ["filter", "predictive"])
    def test_ewma_of_single_values(self, rng, kind):
        x = f32(rng.normal(5.0, 0.5, 40))
        lam = 0.3
        r = veltancmat.control_chart(x, "ewma", ewma_lambda=lam, ewma=kind, target=5.0)
        # The EWMA starts at the target; a filter takes in x_i, a prediction x_(i-1).
        z = [5.0]
        for i in range(1, len(x)):
            z.append(z[-1] + lam * ((x[i] if kind == "filter" else x[i - 1]) - z[-1]))
        np.testing.assert_allclose(r.ewma, z, rtol=1e-5)
        sigma = x.std(ddof=1)
        assert r.sigma == pytest.approx(sigma, rel=1e-5) and r.ewma_lambda == lam
        assert r.ucl - 5.0 == pytest.approx(3 * sigma * np.sqrt(lam / (2 - lam)), rel=1e-5)
        assert r.rules == ["EWMA above the upper control limit", "EWMA below the lower control limit"]

    def test_estimated_weight(self, rng):
        # A random walk is best predicted by its last value: the weight goes to 1.
        walk = np.cumsum(rng.normal(size=300))
        assert veltancmat.control_chart(walk, "ewma").ewma_lambda == pytest.approx(1.0, abs=0.05)


class TestChartInputs:
    @pytest.mark.parametrize("kwargs, message", [
        ({"chart": "xbar"}, "must be \"individual\""),
        ({"chart": "mean-range"}, "subgroups of at least 2"),
        ({"subgroup_size": 0}, "at least 1 value"),
        ({"subgroup_size": 50}, "x has only 12 values"),
        ({"chart": "cusum", "rules": "we"}, "run rules judge"),
        ({"rules": "nelson"}, "must be \"we\""),
        ({"ewma_lambda": 0.2}, "only the \"ewma\""),
        ({"chart": "ewma", "ewma_lambda": 1.5}, "above 0 and at most 1"),
        ({"chart": "ewma", "ewma": "smooth"}, "\"filter\" or \"predictive\""),
        ({"sigma": 0.0}, "above 0"),
        ({"target": -99.0}, "reserves -99"),
        ({"target": np.inf}, "finite"),
        ({"interval": 2.0}, "give the time"),
        ({"times": np.arange(12.0)}, "width of a group"),
        ({"times": np.arange(12.0), "interval": 0.0}, "other than 0"),
        ({"times": np.arange(12.0)[::-1], "interval": 2.0}, r"times\[1\] is 10, after 11"),
        ({"times": np.arange(11.0), "interval": 2.0}, "must match"),
        ({"times": np.arange(12.0), "interval": 2.0, "subgroup_size": 2}, "not both"),
        ({"reference_times": np.arange(12.0)}, "goes with reference"),
    ])
    def test_bad_options(self, kwargs, message):
        x = np.array([1.0, 2.0, 1.5, 1.8, 2.2, 1.1, 1.7, 2.0, 1.4, 1.9, 1.2, 1.6])
        args = {"chart": "individual", **kwargs}
        with pytest.raises(ValueError, match=message):
            veltancmat.control_chart(x, **args)

    @pytest.mark.parametrize("x, error, message", [
        (np.array([1.0, -99.0, 2.0]), ValueError, r"x\[1\] is -99"),
        (np.ones((4, 2)), ValueError, "1-D"),
        (np.array([]), ValueError, "empty"),
        (np.array(["a", "b"]), TypeError, "real numbers"),
        (np.full(5, np.nan), ValueError, "every value is missing"),
        (np.array([1.0, np.nan, 2.0, np.nan]), ValueError, "no two neighbouring"),
        (np.array([np.nan, 1.0]), ValueError, "only 1 subgroup"),
        (np.full(8, 3.0), ValueError, "do not vary"),
    ])
    def test_bad_series(self, x, error, message):
        with pytest.raises(error, match=message):
            veltancmat.control_chart(x, "individual")

    def test_no_spread_in_any_subgroup(self):
        with pytest.raises(ValueError, match="no subgroup has 2 present values"):
            veltancmat.control_chart([1.0, np.nan, 2.0, np.nan, 3.0, np.nan], "mean-sd", 2)


class TestCapability:
    def test_against_hand_computation(self, rng):
        x = f32(rng.normal(13.0, 0.8, 178))
        x[5] = np.nan
        lsl, usl, target = 11.5, 14.5, 13.2
        r = veltancmat.capability(x, lsl=lsl, usl=usl, target=target)
        v = x[~np.isnan(x)]
        m, s = v.mean(), v.std(ddof=1)
        assert r.n == 177
        assert (r.mean, r.std_dev) == pytest.approx((m, s), rel=1e-6)
        assert r.cp == pytest.approx((usl - lsl) / (6 * s), rel=1e-6)
        assert r.cpu == pytest.approx((usl - m) / (3 * s), rel=1e-6)
        assert r.cpl == pytest.approx((m - lsl) / (3 * s), rel=1e-6)
        assert r.cpk == pytest.approx(min(r.cpu, r.cpl))
        spread_about_target = np.sqrt(np.sum((v - target) ** 2) / (len(v) - 1))
        assert r.cpm == pytest.approx((usl - lsl) / (6 * spread_about_target), rel=1e-6)
        assert r.ppm_observed == pytest.approx(np.mean((v < lsl) | (v > usl)) * 1e6)
        normal = scipy.stats.norm(m, s)
        assert r.ppm_expected == pytest.approx((normal.cdf(lsl) + normal.sf(usl)) * 1e6, rel=1e-6)
        w, p = scipy.stats.shapiro(v)
        assert (r.shapiro_w, r.shapiro_p) == pytest.approx((w, p), rel=5e-3, abs=2e-5)
        assert np.isnan(r.reference_mean)

    def test_one_limit_reversed_limits_and_reference(self, rng):
        x = rng.normal(0.0, 1.0, 40)
        upper = veltancmat.capability(x, usl=2.0)
        assert np.isnan(upper.cp) and np.isnan(upper.cpl) and upper.cpk == upper.cpu
        reversed_ = veltancmat.capability(x, lsl=1.0, usl=-1.0)
        assert reversed_.ppm_observed == 1e6 and np.isnan(reversed_.cp)
        bare = veltancmat.capability(x, reference=[1.0, 2.0, np.nan])
        assert np.isnan(bare.ppm_expected) and np.isnan(bare.cpk) and bare.reference_mean == 1.5
        assert dict(bare)["mean"] == bare["mean"] == bare.mean

    @pytest.mark.parametrize("kwargs, message", [
        ({"x": [1.0, np.nan]}, "at least 2"),
        ({"x": [1.0, 2.0], "lsl": -99}, "reserves -99"),
        ({"x": [1.0, 2.0], "usl": np.nan}, "finite"),
        ({"x": [1.0, 2.0], "reference": [np.nan]}, "at least 1"),
        ({"x": [[1.0, 2.0]]}, "1-D"),
    ])
    def test_refused(self, kwargs, message):
        with pytest.raises(ValueError, match=message):
            veltancmat.capability(**kwargs)


def test_histogram(rng):
    x = f32(rng.normal(100.0, 15.0, 500))
    x[:3] = np.nan
    counts, edges = veltancmat.histogram(x)
    width = edges[1] - edges[0]
    np.testing.assert_allclose(np.diff(edges), width)
    mantissa = width / 10 ** np.floor(np.log10(width))
    assert np.isclose(mantissa, np.arange(1.0, 10.0, 0.5)).any()
    assert edges[0] <= np.nanmin(x) and np.nanmax(x) <= edges[-1]
    np.testing.assert_array_equal(counts, np.histogram(x[3:], edges)[0])
    # Values on the edges: each counts in the bin above, the largest in the last.
    counts, edges = veltancmat.histogram(np.arange(0.0, 50.0, 5.0))
    np.testing.assert_array_equal(edges, [0, 10, 20, 30, 40, 50])
    np.testing.assert_array_equal(counts, [2, 2, 2, 2, 2])
    with pytest.raises(ValueError, match="every value is missing"):
        veltancmat.histogram([np.nan])


TOOL = pathlib.Path(veltancmat.__file__).resolve().parents[2] / "cli" / "veltan"
FILL_WEIGHTS = DATA / "fill-weights.csv"


@pytest.mark.skipif(not TOOL.exists(), reason="the veltan tool is not built")
class TestAgreesWithTheTool:
    """The binding sets charts up as `veltan chart` does: the same limits and signals."""

    def tool(self, *args):
        run = subprocess.run([str(TOOL), "chart", *map(str, args), "--column", "weight", "--json"],
                             capture_output=True, text=True, check=True)
        return json.loads(run.stdout)

    def compare(self, tool, r):
        assert r.sigma == pytest.approx(tool["sigma"], rel=1e-6)
        assert r.center == pytest.approx(tool["target"], rel=1e-6)
        plotted = next(iter(tool["limits"].values()))  # the means', the EWMA's or the CuSum's
        for name in plotted.keys() - {"centre"}:
            assert r[name] == pytest.approx(plotted[name], rel=1e-6), name
        assert r.rules == tool["rule_descriptions"]
        if r.spread is not None:
            assert list(np.flatnonzero(r.spread_beyond)) == tool["spread_beyond_limits"]
        assert {p: set(np.flatnonzero(row)) for p, row in enumerate(r.violations) if row.any()} == \
            {f["point"]: set(f["rules"]) for f in tool["flagged"]}

    @pytest.mark.parametrize("chart, options", [
        ("individual", {"rules": "we"}),
        ("mean-range", {"subgroup_size": 5, "rules": "we"}),
        ("mean-sd", {"subgroup_size": 5, "rules": "we", "target": 500.0}),
        ("cusum", {"subgroup_size": 5}),
        ("ewma", {"subgroup_size": 5}),
        ("ewma-overall", {"ewma_lambda": 0.2, "ewma": "predictive"}),
    ])
    def test_chart(self, chart, options):
        weight = np.genfromtxt(FILL_WEIGHTS, delimiter=",", skip_header=1, usecols=2)
        flags = [f"--{name.replace('subgroup_size', 'subgroup').replace('ewma_lambda', 'lambda')}"
                 for name in options]
        args = [x for flag, value in zip(flags, options.values()) for x in (flag, value)]
        self.compare(self.tool(FILL_WEIGHTS, "--type", chart, *args),
                     veltancmat.control_chart(weight, chart, **options))

    def test_time_groups_and_reference_period(self, tmp_path):
        table = np.genfromtxt(FILL_WEIGHTS, delimiter=",", skip_header=1, usecols=(1, 2))
        phase1, phase2 = tmp_path / "phase1.csv", tmp_path / "phase2.csv"
        for path, rows in ((phase1, table[:60]), (phase2, table[60:])):
            lines = ["minute,weight"] + [",".join("" if np.isnan(v) else repr(v) for v in row) for row in rows]
            path.write_text("\n".join(lines) + "\n")
        tool = self.tool(phase2, "--type", "mean-sd", "--time", "minute", "--interval", 15, "--rules", "we",
                         "--limits-from", phase1)
        r = veltancmat.control_chart(table[60:, 1], "mean-sd", times=table[60:, 0], interval=15.0, rules="we",
                                     reference=table[:60, 1], reference_times=table[:60, 0])
        self.compare(tool, r)
        assert r.subgroup_size == tool["subgroup_size"]
