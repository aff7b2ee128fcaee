"""Multivariate data analysis with the Veltancmat engine.

PCA, PLS and OPLS models grown one cross-validated component at a time,
with scikit-learn's conventions: parameters in the constructor, ``fit``
returning the estimator, fitted attributes ending in ``_``. NaN marks a
missing value in every input; the models fit around missing cells.
"""

from ._core import fisher_exact, linkage, savgol_filter, shapiro
from ._models import OPLS, PCA, PLS

__all__ = ["PCA", "PLS", "OPLS", "shapiro", "fisher_exact", "linkage", "savgol_filter"]
__version__ = "0.1.0"
