import numpy as np
import pytest
from sklearn.cross_decomposition import PLSRegression

import veltancmat
from conftest import assert_same_up_to_sign


@pytest.fixture(scope="module")
def alcohol(wine):
    """Alcohol (column 0) from the other twelve measurements."""
    return wine[:, 1:], wine[:, 0]


class TestPLSAgainstScikitLearn:
    @pytest.mark.parametrize("a", [1, 3])
    def test_single_response(self, alcohol, a):
        x, y = alcohol
        ours = veltancmat.PLS(n_components=a).fit(x, y)
        theirs = PLSRegression(n_components=a, scale=True).fit(x, y)
        np.testing.assert_allclose(ours.predict(x), theirs.predict(x).ravel(), rtol=1e-4)
        assert_same_up_to_sign(ours.x_weights_, theirs.x_weights_, atol=1e-4)
        assert_same_up_to_sign(ours.x_scores_, theirs.x_scores_, atol=2e-3)

    def test_two_responses(self, wine):
        x, y = wine[:, 2:], wine[:, :2]
        ours = veltancmat.PLS(n_components=2).fit(x, y)
        theirs = PLSRegression(n_components=2).fit(x, y)
        np.testing.assert_allclose(ours.predict(x), theirs.predict(x), rtol=1e-4, atol=1e-4)
        assert ours.coef_.shape == (2, 11) and ours.y_loadings_.shape == (2, 2)


class TestPLSModel:
    def test_coefficients_reproduce_predictions(self, alcohol):
        x, y = alcohol
        model = veltancmat.PLS().fit(x, y)
        np.testing.assert_allclose(model.predict(x), x @ model.coef_[0] + model.intercept_[0], rtol=1e-5)
        assert model.predict(x).shape == (178,)
        assert model.predict(x).dtype == np.float64

    def test_significance_rule_stops(self, alcohol):
        model = veltancmat.PLS().fit(*alcohol)
        assert model.n_components_ >= 1
        assert len(model.q2_) == model.n_components_ == len(model.significance_)
        assert all(q > lim for q, lim in zip(model.q2_, model.q2_limit_))
        assert model.stop_reason_

    def test_column_response_keeps_its_shape(self, alcohol):
        x, y = alcohol
        assert veltancmat.PLS(n_components=1).fit(x, y.reshape(-1, 1)).predict(x[:4]).shape == (4, 1)

    def test_missing_responses_and_predictors(self, alcohol, rng):
        x, y = alcohol[0].copy(), alcohol[1].copy()
        y[::9] = np.nan
        x[rng.random(x.shape) < 0.03] = np.nan
        model = veltancmat.PLS(n_components=2).fit(x, y)
        prediction = model.predict(x)
        assert np.all(np.isfinite(prediction))
        complete = veltancmat.PLS(n_components=2).fit(*alcohol)
        assert np.corrcoef(prediction, complete.predict(alcohol[0]))[0, 1] > 0.97

    def test_unrelated_response_is_nothing_to_model(self, rng):
        x = rng.standard_normal((50, 4))
        y = rng.standard_normal(50)
        model = veltancmat.PLS().fit(x, y)
        assert model.n_components_ == 0
        np.testing.assert_allclose(model.predict(x), np.full(50, y.mean()), rtol=1e-5)

    def test_row_counts_must_match(self, alcohol):
        x, y = alcohol
        with pytest.raises(ValueError, match="same number of rows.*178 and 177"):
            veltancmat.PLS().fit(x, y[:-1])


class TestOPLS:
    def test_single_response_fits_as_pls(self, alcohol):
        # With one response, 1 predictive + o orthogonal components span the
        # same fitted values as o + 1 PLS components.
        x, y = alcohol
        for o in (0, 2):
            opls = veltancmat.OPLS(n_orthogonal=o).fit(x, y)
            pls = veltancmat.PLS(n_components=o + 1).fit(x, y)
            assert opls.n_predictive_ == 1 and opls.n_orthogonal_ == o
            fitted = (opls.x_scores_ @ opls.y_loadings_.T)[:, 0] * y.std(ddof=1) + y.mean()
            np.testing.assert_allclose(fitted, pls.predict(x), rtol=1e-4)
            assert opls.r2y_ == pytest.approx(pls.r2y_cum_[-1], abs=1e-4)

    def test_training_rows_predict_their_fitted_values_without_orthogonal_components(self, alcohol):
        x, y = alcohol
        opls = veltancmat.OPLS(n_orthogonal=0).fit(x, y)
        np.testing.assert_allclose(opls.predict(x), veltancmat.PLS(n_components=1).fit(x, y).predict(x), rtol=1e-5)

    def test_training_rows_predict_their_fitted_values_without_orthogonal_components(self, alcohol):
        # With orthogonal components a new row's orthogonal scores are taken
        # after the predictive part is removed, where the fit removed the
        # projection on the weights, so training rows need not reproduce
        # their fitted values then (docs/opls.md); without them they must.
        x, y = alcohol
        opls = veltancmat.OPLS(n_orthogonal=0).fit(x, y)
        fitted = (opls.x_scores_ @ opls.y_loadings_.T)[:, 0] * y.std(ddof=1) + y.mean()
        np.testing.assert_allclose(opls.predict(x), fitted, rtol=1e-4)

    def test_orthogonal_scores_are_orthogonal_to_the_response(self, alcohol):
        x, y = alcohol
        model = veltancmat.OPLS(n_orthogonal=2).fit(x, y)
        yc = (y - y.mean()) / y.std(ddof=1)
        assert model.x_ortho_scores_.shape == (178, 2)
        assert np.all(np.abs(yc @ model.x_ortho_scores_) < 1e-2 * np.linalg.norm(yc)
                      * np.linalg.norm(model.x_ortho_scores_, axis=0))

    def test_open_ended_fit_stops_when_q2_stalls(self, alcohol):
        model = veltancmat.OPLS().fit(*alcohol)
        kept = model.stages_["kept"]
        assert sum(kept) == model.n_orthogonal_ + 1
        assert "Q2" in model.stop_reason_ or "limit" in model.stop_reason_
        assert model.q2_ == pytest.approx(model.stages_["q2"][model.n_orthogonal_])
        assert 0 < model.r2y_ <= 1 and model.q2_ <= model.r2y_

    def test_many_orthogonal_components(self, alcohol):
        # Four or more orthogonal components once crashed the engine (a model
        # copy growing its component matrices).
        x, y = alcohol
        model = veltancmat.OPLS(n_orthogonal=6).fit(x, y)
        assert model.n_orthogonal_ == 6 and model.x_ortho_loadings_.shape == (12, 6)
        assert np.all(np.isfinite(model.predict(x)))

    def test_too_many_orthogonal_components(self, alcohol):
        x, y = alcohol
        with pytest.raises(ValueError, match="n_orthogonal=12: the data can take at most 11"):
            veltancmat.OPLS(n_orthogonal=12).fit(x, y)

    def test_constant_response(self, alcohol):
        with pytest.raises(ValueError, match="Y column 0"):
            veltancmat.OPLS().fit(alcohol[0], np.ones(178))
