"""Control charts and capability: result objects over the dicts of ``_core``."""

from . import _core


class _Result:
    """Read-only figures, as attributes and as a mapping (``result["ucl"]``,
    ``dict(result)``)."""

    def __init__(self, fields):
        self.__dict__.update(fields)

    def keys(self):
        return self.__dict__.keys()

    def __getitem__(self, name):
        return self.__dict__[name]

    def __setattr__(self, name, value):
        raise AttributeError(f"{type(self).__name__} is read-only")

    def __repr__(self):
        scalars = ", ".join(f"{name}={value!r}" for name, value in self.__dict__.items()
                            if isinstance(value, (int, float, str)))
        return f"{type(self).__name__}({scalars})"


class ControlChartResult(_Result):
    """What a control chart draws; see :func:`control_chart`."""

    @property
    def flagged(self):
        """Points broken by any rule (a boolean array, one per subgroup)."""
        return self.violations.any(axis=1)


class CapabilityResult(_Result):
    """Capability indices of one series; see :func:`capability`."""


def control_chart(x, chart="individual", subgroup_size=None, *, times=None, interval=None, target=None,
                  sigma=None, ewma_lambda=None, ewma=None, rules=None, reference=None, reference_times=None):
    """A control chart of the 1-D series x, as ``veltan chart`` draws it.

    chart: "individual", "mean-range", "mean-sd", "cusum", "ewma" or
        "ewma-overall".
    subgroup_size: consecutive subgroups of this many values (default 1; a
        trailing incomplete subgroup is left out). Or group by time instead:
        times (one per value, sorted) and interval (the width of a group,
        negative for descending times).
    target, sigma: a given centre line and process standard deviation of
        single values; estimated from the data when None.
    ewma_lambda, ewma: the EWMA weight (estimated when None) and "filter"
        (the default) or "predictive", for the EWMA charts.
    rules: "we" applies the four classic run rules to the means of an
        individual, mean-range or mean-sd chart.
    reference, reference_times: a reference period (phase I) grouped alike;
        the centre line, limits and sigma come from its chart.

    NaN is a missing value. Returns a :class:`ControlChartResult`.
    """
    fields = _core.control_chart(x, chart, subgroup_size, times, interval, target, sigma, ewma_lambda, ewma,
                                 rules, reference, reference_times)
    return ControlChartResult({"chart": chart, **fields})


def capability(x, lsl=None, usl=None, target=None, reference=None):
    """Process capability of the present values of the 1-D series x against
    the lower and upper limits lsl and usl (either or both) and a target.

    Returns a :class:`CapabilityResult`: mean, std_dev, cp, cpk, cpu, cpl,
    cpm, ppm_observed, ppm_expected, shapiro_w, shapiro_p, reference_mean
    and n; a figure the inputs do not allow is NaN.
    """
    return CapabilityResult(_core.capability(x, lsl, usl, target, reference))
