import numpy as np
import pytest
from sklearn.base import clone
from sklearn.decomposition import PCA as SkPCA

import veltancmat
from conftest import assert_same_up_to_sign, standardized


class TestAgainstScikitLearn:
    def test_scores_and_loadings_of_complete_data(self, wine):
        ours = veltancmat.PCA(n_components=4).fit(wine)
        theirs = SkPCA(n_components=4).fit(standardized(wine))
        assert_same_up_to_sign(ours.loadings_, theirs.components_.T, atol=2e-4)
        assert_same_up_to_sign(ours.scores_, theirs.transform(standardized(wine)), atol=2e-3)
        np.testing.assert_allclose(ours.r2x_, theirs.explained_variance_ratio_, rtol=1e-4)

    def test_pareto_and_centring_only(self, wine, rng):
        x = wine[:, :5]
        for scale, divisor in (("center", np.ones(5)), ("pareto", np.sqrt(x.std(axis=0, ddof=1)))):
            ours = veltancmat.PCA(n_components=2, scale=scale).fit(x)
            theirs = SkPCA(n_components=2).fit((x - x.mean(axis=0)) / divisor)
            assert_same_up_to_sign(ours.loadings_, theirs.components_.T, atol=2e-4)


class TestSignificanceRule:
    def test_wine_keeps_the_components_the_tool_keeps(self, wine):
        # The same table as `veltan pca`'s example: three components, the
        # fourth rejected as NS.
        model = veltancmat.PCA().fit(wine)
        assert model.n_components_ == 3
        assert model.significance_ == ["R1", "R1", "R2"]
        assert model.components_table_["significance"][3] == "NS"
        assert "component 4" in model.stop_reason_
        np.testing.assert_allclose(model.r2x_, [0.362, 0.192, 0.111], atol=5e-4)
        np.testing.assert_allclose(model.q2_, [0.255, 0.148, 0.056], atol=5e-4)
        np.testing.assert_allclose(model.q2_limit_, [0.077, 0.082, 0.089], atol=5e-4)
        np.testing.assert_allclose(model.r2x_cum_, np.cumsum(model.r2x_), atol=1e-5)
        assert model.scores_.shape == (178, 3) and model.loadings_.shape == (13, 3)

    def test_noise_gives_no_component(self, rng):
        model = veltancmat.PCA().fit(rng.standard_normal((60, 8)))
        assert model.n_components_ == 0
        assert model.scores_.shape == (60, 0)
        assert model.transform(rng.standard_normal((3, 8))).shape == (3, 0)


class TestTransform:
    def test_training_rows_get_their_scores(self, wine):
        model = veltancmat.PCA().fit(wine)
        np.testing.assert_allclose(model.transform(wine), model.scores_, atol=1e-4)
        np.testing.assert_allclose(model.fit_transform(wine), model.scores_)

    def test_rows_with_gaps_are_scored_around_them(self, wine):
        model = veltancmat.PCA(n_components=2).fit(wine)
        rows = wine[:3].copy()
        rows[0, 4] = np.nan
        rows[1, 3:] = np.nan  # 10 of 13 missing: no scores
        t = model.transform(rows)
        assert np.all(np.isnan(t[1]))
        np.testing.assert_allclose(t[2], model.scores_[2], atol=1e-4)
        assert np.all(np.isfinite(t[0]))
        np.testing.assert_allclose(t[0], model.scores_[0], atol=0.6)

    def test_row_in_the_model_plane_keeps_its_scores_through_gaps(self, wine):
        # Whatever the method, a row the model explains exactly must get its
        # scores back from the cells that remain.
        model = veltancmat.PCA(n_components=2).fit(wine)
        t = np.array([1.5, -0.75])
        row = model.mean_ + (model.loadings_ @ t) / model.scale_
        for gaps in ([4], [0, 7, 12], list(range(6))):
            holed = row.copy()
            holed[gaps] = np.nan
            np.testing.assert_allclose(model.transform(holed[None])[0], t, atol=1e-3, err_msg=str(gaps))

    def test_wrong_width_is_refused(self, wine):
        model = veltancmat.PCA(n_components=2).fit(wine)
        with pytest.raises(ValueError, match="12 columns, but the model was fitted on 13"):
            model.transform(wine[:, :12])

    def test_unfitted(self):
        with pytest.raises(AttributeError, match="not fitted"):
            veltancmat.PCA().transform(np.ones((2, 2)))


class TestMissingValues:
    def test_fit_around_missing_cells(self, wine, rng):
        x = wine.copy()
        holes = rng.random(x.shape) < 0.05
        x[holes] = np.nan
        model = veltancmat.PCA(n_components=3).fit(x)
        complete = veltancmat.PCA(n_components=3).fit(wine)
        assert np.all(np.isfinite(model.scores_))
        # 5 % of the cells missing moves the model only a little.
        for j in range(3):
            assert abs(np.dot(model.loadings_[:, j], complete.loadings_[:, j])) > 0.95

    def test_constant_column_is_named(self, wine):
        x = wine.copy()
        x[:, 5] = 1.0
        with pytest.raises(ValueError, match="column 5.*constant"):
            veltancmat.PCA().fit(x)


class TestParameters:
    def test_clone_and_params(self):
        model = veltancmat.PCA(n_components=2, scale="pareto", cv_groups=5)
        assert model.get_params() == {"n_components": 2, "scale": "pareto", "cv_groups": 5}
        copy = clone(model)
        assert copy.get_params() == model.get_params() and copy is not model
        assert repr(model) == "PCA(n_components=2, scale='pareto', cv_groups=5)"

    @pytest.mark.parametrize("kwargs, message", [
        ({"n_components": 0}, "at least 1"),
        ({"n_components": 14}, "at most 13"),
        ({"scale": "log"}, "must be \"uv\""),
        ({"cv_groups": 1}, "cv_groups=1"),
        ({"cv_groups": 500}, "cv_groups=500"),
    ])
    def test_bad_parameters(self, wine, kwargs, message):
        with pytest.raises(ValueError, match=message):
            veltancmat.PCA(**kwargs).fit(wine)

    def test_count_must_be_an_integer(self, wine):
        with pytest.raises(TypeError):
            veltancmat.PCA(n_components=2.5).fit(wine)
