#!/usr/bin/env python3
"""Reference values for OPLS with several responses and missing cells,
from a second implementation written here in NumPy (double precision, the
singular value decomposition in place of NIPALS). It follows the library's
description of the model step by step: the missing-aware projections
(divisor max(v'v / 3, v'v over the cells used)), the basis refinement, one
orthogonal component per stage, and the predictor that removes the
predictive part before projecting on an orthogonal weight vector.

The table (15 training rows, 5 new rows, 6 predictors, 3 responses, about
8 % of X and 5 % of Y missing) is drawn from a fixed seed and rounded to
float32, which is what the library is given. Written for stages 0 to 2:
the number of predictive components, the refinement passes, the fitted
values T C' + sum of t_o c_o' (15 x 3) and the predictions for the new rows
(5 x 3); all are independent of the signs of the components. Run once; the
output is committed as tests/models/fixtures/OPLSReference.inc.

    /usr/bin/python3 tests/reference/opls.py > tests/models/fixtures/OPLSReference.inc
"""
import numpy as np

ROWS, NEW, COLS, RESPONSES, STAGES = 15, 5, 6, 3, 3


def table():
    rng = np.random.default_rng(2026)
    scores = rng.normal(size=(ROWS + NEW, 3)) * np.array([4.0, 2.0, 1.0])
    x = scores @ rng.normal(size=(3, COLS)) + 0.3 * rng.normal(size=(ROWS + NEW, COLS))
    y = scores[:, :2] @ rng.normal(size=(2, RESPONSES)) + 0.3 * rng.normal(size=(ROWS + NEW, RESPONSES))
    x -= x[:ROWS].mean(axis=0)
    y -= y[:ROWS].mean(axis=0)
    x[rng.random(x.shape) < 0.08] = np.nan
    y[rng.random(y.shape) < 0.05] = np.nan
    x = x.astype(np.float32).astype(np.float64)
    y = y.astype(np.float32).astype(np.float64)
    return x[:ROWS], y[:ROWS], x[ROWS:]


def project(e, v):
    """Each row of e projected on v over the row's present cells (nan where none)."""
    used = ~np.isnan(e) & ~np.isnan(v)[None, :]
    num = np.where(used, np.nan_to_num(e) * np.nan_to_num(v)[None, :], 0.0).sum(axis=1)
    vv = np.nansum(v * v)
    d = np.maximum(vv / 3.0, np.where(used, np.nan_to_num(v)[None, :] ** 2, 0.0).sum(axis=1))
    out = num / np.where(d > 1e-30, d, 1.0)
    out[(used.sum(axis=1) == 0) | (np.abs(d) <= 1e-30)] = np.nan
    return out


def deflate(e, t, v):
    """e - t v' on the cells where e, t and v are present."""
    update = np.outer(np.nan_to_num(t), np.nan_to_num(v))
    keep = np.isnan(t)[:, None] | np.isnan(v)[None, :]
    return np.where(keep, e, e - update)


def zero_product(a, b):
    return np.nan_to_num(a) @ np.nan_to_num(b)


def leading_rows(s, count):
    """The first `count` right singular vectors of s: the loadings of an uncentred PCA."""
    _, _, vt = np.linalg.svd(s, full_matrices=False)
    return vt[:count]


class Opls:
    def __init__(self, x, y, max_iterations=200):
        self.x, self.y = x.copy(), y.copy()
        self.incomplete = np.isnan(x).any() or np.isnan(y).any()
        self.max_iterations = max_iterations
        self.a = 0
        self.w, self.p, self.c = [], [], []
        self.wo, self.po, self.co, self.to = [], [], [], []

    def basis(self, s):
        if s.shape[0] < 2:
            return s[:1] / np.linalg.norm(s[0])
        if self.a >= 1:
            return leading_rows(s, self.a)
        ss = np.linalg.svd(s, compute_uv=False) ** 2
        k = 1
        while ss[k - 1] > 0.01 * ss[0] and k < s.shape[0]:
            k += 1
        if ss[k - 1] < 0.01 * ss[0]:
            k -= 1
        self.a = k
        return leading_rows(s, k)

    def remove(self, b):
        e, scores = self.x.copy(), []
        for v in b:
            t = project(e, v)
            e = deflate(e, t, v)
            scores.append(t)
        return e, np.array(scores)

    def fit_predictive(self):
        e, passes = self.x, 0
        while True:
            m = zero_product(self.y.T, e)
            n = np.linalg.norm(m)
            if passes == 0:
                first = previous = n
                s = m
            else:
                if n < 0.01 * first or n > previous:
                    break
                previous = n
                s = s + m
            b = self.basis(s)
            e, self.basis_scores = self.remove(b)
            passes += 1
            if not self.incomplete or passes >= self.max_iterations:
                break
        self.a = b.shape[0]
        self.passes = passes
        e, f = self.x.copy(), self.y.copy()
        t_rows, p_rows, c_rows = [], [], []
        for v in b:
            t = project(e, v)
            p = project(e.T, t)
            c = project(f.T, t)
            e, f = deflate(e, t, p), deflate(f, t, c)
            t_rows.append(t)
            p_rows.append(p)
            c_rows.append(c)
        self.t = np.array(t_rows)
        self.w.append(b)
        self.p.append(np.array(p_rows))
        self.c.append(np.array(c_rows))

    def next_orthogonal(self):
        e, w = self.x.copy(), self.w[-1]
        for t, v in zip(self.basis_scores, w):
            e = deflate(e, t, v)
        outside = zero_product(self.basis_scores, e)
        wo = outside[0] / np.linalg.norm(outside[0]) if outside.shape[0] < 2 else leading_rows(outside, 1)[0]
        to = project(e, wo)
        co = project(self.y.T, to)
        po = project(self.x.T, to)
        self.x, self.y = deflate(self.x, to, po), deflate(self.y, to, co)
        self.wo.append(wo)
        self.po.append(po)
        self.co.append(co)
        self.to.append(to)
        self.fit_predictive()

    def fitted(self):
        total = np.zeros((self.x.shape[0], self.c[-1].shape[1]))
        for to, co in zip(self.to, self.co):
            total += np.outer(to, co)
        return total + self.t.T @ self.c[-1]

    def predict(self, xnew):
        x, y, k = xnew.copy(), np.zeros((xnew.shape[0], self.c[-1].shape[1])), len(self.wo)
        for stage in range(k):
            e = x.copy()
            for v, p in zip(self.w[stage], self.p[stage]):
                e = deflate(e, project(e, v), p)
            to = project(e, self.wo[stage])
            x = deflate(x, to, self.po[stage])
            y += np.outer(np.nan_to_num(to), self.co[stage])
        e = x.copy()
        for v, p, c in zip(self.w[k], self.p[k], self.c[k]):
            t = project(e, v)
            e = deflate(e, t, p)
            y += np.outer(np.nan_to_num(t), c)
        return y


def values(name, v):
    v = np.nan_to_num(np.ravel(v), nan=-99.0)
    body = ",\n    ".join(", ".join(repr(float(a)) for a in v[k:k + 5]) for k in range(0, len(v), 5))
    return f"const double {name}[] = {{\n    {body}}};\n"


x, y, xnew = table()
model = Opls(x, y)
model.fit_predictive()
predictive, passes, fitted, predicted = [], [], [], []
for stage in range(STAGES):
    if stage > 0:
        model.next_orthogonal()
    predictive.append(model.a)
    passes.append(model.passes)
    fitted.append(model.fitted())
    predicted.append(model.predict(xnew))

print("// Generated by tests/reference/opls.py (NumPy); do not edit.")
print(f"constexpr int OPLSRows = {ROWS};")
print(f"constexpr int OPLSNewRows = {NEW};")
print(f"constexpr int OPLSCols = {COLS};")
print(f"constexpr int OPLSResponses = {RESPONSES};")
print(f"constexpr int OPLSStages = {STAGES};")
print("// Row-major, -99 for a missing cell.")
print(values("OPLSX", x))
print(values("OPLSY", y))
print(values("OPLSNewX", xnew))
print("// Per stage (0 orthogonal components first).")
print(f"const int OPLSPredictive[] = {{{', '.join(map(str, predictive))}}};")
print(f"const int OPLSPasses[] = {{{', '.join(map(str, passes))}}};")
print(values("OPLSFitted", np.array(fitted)))
print(values("OPLSPredicted", np.array(predicted)))
