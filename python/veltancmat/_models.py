"""The estimators: thin Python classes over the engine's fits in ``_core``."""

import numpy as np

from . import _core


class _Estimator:
    """Parameters in the constructor, read back by get_params, as scikit-learn's
    tools (clone, grid searches) expect."""

    _parameters = ()

    def get_params(self, deep=True):
        return {name: getattr(self, name) for name in self._parameters}

    def set_params(self, **params):
        for name, value in params.items():
            if name not in self._parameters:
                raise ValueError(f"{type(self).__name__} has no parameter {name!r}")
            setattr(self, name, value)
        return self

    def __repr__(self):
        args = ", ".join(f"{name}={getattr(self, name)!r}" for name in self._parameters)
        return f"{type(self).__name__}({args})"

    def _check_fitted(self):
        if not hasattr(self, "_fit"):
            raise AttributeError(f"this {type(self).__name__} is not fitted yet; call fit first")


def _count(value, name):
    if value is None:
        return None
    if isinstance(value, (bool, np.bool_)) or not isinstance(value, (int, np.integer)):
        raise TypeError(f"{name} must be an integer or None; got {value!r}")
    return int(value)


def _responses(Y):
    """Y as a 2-D block, and whether it was given as a single column."""
    array = np.asarray(Y) if not isinstance(Y, np.ndarray) else Y
    if array.ndim == 1:
        return array.reshape(-1, 1), True
    return array, False


def _kept(records, count):
    return {name: (column[:count] if name != "significance" else list(column[:count]))
            for name, column in records.items()}


class PCA(_Estimator):
    """Principal component analysis, one cross-validated component at a time.

    n_components: a fixed number of components, or None to keep components
        while the significance rule accepts them (cross-validated Q2 against
        its limit, confirmed by the eigenvalue where Q2 is undecided).
    scale: "uv" (centred, unit variance), "pareto", "center" or "none".
    cv_groups: cross-validation groups (at most the number of rows).

    Fitted attributes (A = n_components_ kept components):
    scores_ (N x A), loadings_ (K x A), r2x_, r2x_cum_, eigenvalues_, q2_,
    q2_cum_, q2_limit_ (A each), significance_ (A codes: "R1", "R2", ...),
    mean_ and scale_ (K: a row is preprocessed as (x - mean_) * scale_),
    components_table_ (every
    component fitted, the rejected one included), stop_reason_.
    """

    _parameters = ("n_components", "scale", "cv_groups")

    def __init__(self, n_components=None, scale="uv", cv_groups=7):
        self.n_components = n_components
        self.scale = scale
        self.cv_groups = cv_groups

    def fit(self, X, y=None):
        fit = _core.fit_pca(X, _count(self.n_components, "n_components"), self.scale, int(self.cv_groups))
        a = fit.components
        records = fit.records
        kept = _kept(records, a)
        self._fit = fit
        self.n_components_ = a
        self.n_features_in_ = fit.loadings.shape[0]
        self.scores_ = fit.scores
        self.loadings_ = fit.loadings
        self.r2x_ = kept["r2x"]
        self.r2x_cum_ = kept["r2x_cum"]
        self.eigenvalues_ = kept["eigenvalue"]
        self.q2_ = kept["q2"]
        self.q2_cum_ = kept["q2_cum"]
        self.q2_limit_ = kept["q2_limit"]
        self.significance_ = kept["significance"]
        self.mean_ = fit.center
        self.scale_ = fit.scale
        self.components_table_ = {name: column for name, column in records.items()
                                  if name in ("r2x", "r2x_cum", "eigenvalue", "q2", "q2_cum", "q2_limit",
                                              "significance")}
        self.stop_reason_ = fit.stop_reason
        return self

    def transform(self, X):
        """Scores (N x A) of new observations; rows with gaps are scored
        around them, rows missing more than half their values get NaN."""
        self._check_fitted()
        return self._fit.transform(X)

    def fit_transform(self, X, y=None):
        return self.fit(X).scores_


class PLS(_Estimator):
    """Partial least squares regression, one cross-validated component at a time.

    n_components: a fixed number of components, or None to keep components
        while the significance rule accepts them.
    scale: scaling of X and Y: "uv", "pareto", "center" or "none".
    cv_groups: cross-validation groups.

    Fitted attributes (A components, K X variables, M responses):
    coef_ (M x K) and intercept_ (M), in the data's units, so that
    predict(X) == X @ coef_.T + intercept_ on complete rows; x_scores_
    (N x A), y_scores_ (N x A), x_weights_ (K x A), x_loadings_ (K x A),
    y_loadings_ (M x A); r2x_, r2x_cum_, r2y_, r2y_cum_, q2_, q2_cum_,
    q2_limit_, significance_ (A each); components_table_, stop_reason_.
    """

    _parameters = ("n_components", "scale", "cv_groups")

    def __init__(self, n_components=None, scale="uv", cv_groups=7):
        self.n_components = n_components
        self.scale = scale
        self.cv_groups = cv_groups

    def fit(self, X, Y):
        Y, single = _responses(Y)
        fit = _core.fit_pls(X, Y, _count(self.n_components, "n_components"), self.scale, int(self.cv_groups))
        a = fit.components
        records = fit.records
        kept = _kept(records, a)
        self._fit = fit
        self._single = single
        self.n_components_ = a
        self.coef_ = fit.coefficients.T.copy()
        self.intercept_ = fit.intercepts
        self.n_features_in_ = self.coef_.shape[1]
        self.x_scores_ = fit.x_scores
        self.y_scores_ = fit.y_scores
        self.x_weights_ = fit.x_weights
        self.x_loadings_ = fit.x_loadings
        self.y_loadings_ = fit.y_loadings
        for name in ("r2x", "r2x_cum", "r2y", "r2y_cum", "q2", "q2_cum", "q2_limit", "significance"):
            setattr(self, name + "_", kept[name])
        self.components_table_ = {name: column for name, column in records.items()
                                  if name not in ("eigenvalue", "r2x_orthogonal")}
        self.stop_reason_ = fit.stop_reason
        return self

    def predict(self, X):
        """Predicted responses (N x M; N for a single response given as 1-D)."""
        self._check_fitted()
        prediction = self._fit.predict(X)
        return prediction[:, 0] if self._single else prediction


class OPLS(_Estimator):
    """Orthogonal PLS: the predictive part, then orthogonal components.

    n_orthogonal: a fixed number of orthogonal components, or None to add
        them while each raises the cross-validated Q2(cum) by 0.01 or more.
    n_predictive: predictive components, or None to choose them from the data.
    scale, cv_groups: as for PLS.

    Fitted attributes (A predictive, O orthogonal components):
    n_predictive_, n_orthogonal_; x_scores_ (N x A), x_weights_,
    x_loadings_ (K x A), y_loadings_ (M x A), x_ortho_scores_ (N x O),
    x_ortho_weights_, x_ortho_loadings_ (K x O); r2x_ (predictive share of
    X), r2x_ortho_, r2y_, q2_ (cumulative), q2_limit_ of the kept model;
    stages_ (the figures after 0, 1, ... orthogonal components, the rejected
    one included), stop_reason_.
    """

    _parameters = ("n_orthogonal", "n_predictive", "scale", "cv_groups")

    def __init__(self, n_orthogonal=None, n_predictive=None, scale="uv", cv_groups=7):
        self.n_orthogonal = n_orthogonal
        self.n_predictive = n_predictive
        self.scale = scale
        self.cv_groups = cv_groups

    def fit(self, X, Y):
        Y, single = _responses(Y)
        fit = _core.fit_opls(X, Y, _count(self.n_orthogonal, "n_orthogonal"),
                             _count(self.n_predictive, "n_predictive"), self.scale, int(self.cv_groups))
        self._fit = fit
        self._single = single
        self.n_predictive_ = fit.predictive
        self.n_orthogonal_ = fit.orthogonal
        self.x_scores_ = fit.x_scores
        self.x_weights_ = fit.x_weights
        self.x_loadings_ = fit.x_loadings
        self.y_loadings_ = fit.y_loadings
        self.x_ortho_scores_ = fit.x_ortho_scores
        self.x_ortho_weights_ = fit.x_ortho_weights
        self.x_ortho_loadings_ = fit.x_ortho_loadings
        self.n_features_in_ = self.x_loadings_.shape[0]
        records = fit.records
        o = fit.orthogonal
        self.r2x_ = float(records["r2x"][o])
        self.r2x_ortho_ = float(records["r2x_orthogonal"][o])
        self.r2y_ = float(records["r2y"][o])
        self.q2_ = float(records["q2"][o])
        self.q2_limit_ = float(records["q2_limit"][o])
        self.stages_ = {"r2x": records["r2x"], "r2x_ortho": records["r2x_orthogonal"], "r2y": records["r2y"],
                        "q2": records["q2"], "kept": [s == "kept" for s in records["significance"]]}
        self.stop_reason_ = fit.stop_reason
        return self

    def predict(self, X):
        """Predicted responses (N x M; N for a single response given as 1-D)."""
        self._check_fitted()
        prediction = self._fit.predict(X)
        return prediction[:, 0] if self._single else prediction
