"""Multivariate data analysis with the Veltancmat engine.

PCA, PLS and OPLS models grown one cross-validated component at a time,
with scikit-learn's conventions: parameters in the constructor, ``fit``
returning the estimator, fitted attributes ending in ``_``. NaN marks a
missing value in every input; the models fit around missing cells.
Beside them: control charts and capability, FFT correlations and spectra,
and a few tests and filters in SciPy's conventions.
"""

import os
import pathlib

from . import _core
from ._core import (autocorrelation, cross_correlation, fisher_exact, histogram, linkage, power_spectrum,
                    savgol_filter, shapiro)
from ._models import OPLS, PCA, PLS
from ._spc import CapabilityResult, ControlChartResult, capability, control_chart


def _catalogues():
    """The folder of the engine's message catalogues, found from this file:
    where the installation put them (a wheel, or the CMake install's
    share/locale), else the build tree's locale folder. None when
    VELTANCMAT_LOCALEDIR names one, which the engine reads itself, or when
    there is none."""
    if os.environ.get("VELTANCMAT_LOCALEDIR"):
        return None
    here = pathlib.Path(__file__).resolve().parent
    for folder in (here / _core._installed_catalogues, here.parent.parent / "locale"):
        if any(folder.glob("*/LC_MESSAGES/veltancmat.mo")):
            return folder.resolve()
    return None


_folder = _catalogues()
if _folder is not None:
    _core._use_catalogues(str(_folder))
del _folder

__all__ = ["PCA", "PLS", "OPLS", "shapiro", "fisher_exact", "linkage", "savgol_filter", "control_chart",
           "ControlChartResult", "capability", "CapabilityResult", "histogram", "autocorrelation",
           "cross_correlation", "power_spectrum"]
__version__ = "0.1.0"
