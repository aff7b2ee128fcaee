#!/usr/bin/env python3
"""Reference values for the two-way orthogonal PLS model, from a second
implementation written here in NumPy (double precision, the singular value
decomposition in place of NIPALS), after Trygg and Wold, J. Chemometrics 17
(2003) 53-64:

  for each orthogonal component of a block E against the other block G:
    W = leading singular vectors of E'G (one per joint component)
    T = E W,  E_XY = E - T W',  w_o = leading left singular vector of E_XY' T
    t_o = E w_o,  p_o = E' t_o / t_o't_o,  E = E - t_o p_o'
  then, on the filtered blocks E and F:
    W, C = leading left and right singular vectors of E'F,  T = E W,  U = F C
    B_TU, B_UT = least squares of U on T and of T on U.

The X-side components are fitted against the unfiltered Y and the Y-side
ones against the unfiltered X. The loadings of the joint part are those of
each component on the blocks less the earlier joint components,
p_a = E_(a-1)' t_a / t_a't_a with E_a = E - sum_(b<=a) t_b w_b' (q_a the same
from F and u_a, c_a), and the cross loadings are the unfiltered blocks
regressed on the orthogonal scores of the other side.

Data: the bundled wine table (data/wine.csv, CC BY 4.0), every third wine
(60 rows), X = the six measurements Alcohol, Malic acid, Ash, Alcalinity of
ash, Magnesium, Proline and Y = the seven phenolic and colour measurements,
each column centred and scaled to unit variance and rounded to float32,
which is what the library is given. The wine that follows each of the first
ten of those is a new row, scaled in the same way; for them the script gives the
prediction of each block's joint part from the other block:

  x <- x - (x w_o) p_o' for each X-orthogonal component,  Y_hat = (x W) B_TU C'

and the mirror for new Y rows. Run once; the output is committed as
tests/models/fixtures/O2PLSReference.inc:

    /usr/bin/python3 tests/reference/o2pls.py > tests/models/fixtures/O2PLSReference.inc
"""
import csv
import pathlib

import numpy as np

X_NAMES = ["Alcohol", "Malic acid", "Ash", "Alcalinity of ash", "Magnesium", "Proline"]
Y_NAMES = ["Total phenols", "Flavanoids", "Nonflavanoid phenols", "Proanthocyanins", "Color intensity", "Hue",
           "OD280/OD315 of diluted wines"]
CASES = [(1, 1, 1), (2, 2, 1), (1, 0, 3)]
NEW = 10


def blocks():
    """The training blocks and NEW further wines scaled as the training rows were."""
    path = pathlib.Path(__file__).resolve().parents[2] / "data" / "wine.csv"
    with open(path, newline="") as f:
        rows = list(csv.DictReader(f))
    train, new = rows[::3], rows[1::3][:NEW]

    def block(names):
        m = np.array([[float(r[n]) for n in names] for r in train])
        n = np.array([[float(r[n]) for n in names] for r in new])
        mean, sd = m.mean(axis=0), m.std(axis=0, ddof=1)
        return [((v - mean) / sd).astype(np.float32).astype(np.float64) for v in (m, n)]

    (x, xnew), (y, ynew) = block(X_NAMES), block(Y_NAMES)
    return x, y, xnew, ynew


def leading(m, count=1):
    u, _, _ = np.linalg.svd(m, full_matrices=False)
    return u[:, :count]


def orthogonal(own, other, npred, count):
    e = own.copy()
    to, wo, po = [], [], []
    for _ in range(count):
        if npred > 0:
            w = leading(e.T @ other, npred)
            t = e @ w
            w_o = leading((e - t @ w.T).T @ t)[:, 0]
        else:
            w_o = leading(e.T)[:, 0]
        t_o = e @ w_o
        p_o = e.T @ t_o / (t_o @ t_o)
        e -= np.outer(t_o, p_o)
        to.append(t_o)
        wo.append(w_o)
        po.append(p_o)
    n, k = own.shape
    return e, np.reshape(to, (count, n)), np.reshape(wo, (count, k)), np.reshape(po, (count, k))


def stepwise_loadings(e, scores, weights):
    loadings = []
    for t, w in zip(scores.T, weights.T):
        loadings.append(e.T @ t / (t @ t))
        e = e - np.outer(t, w)
    return np.array(loadings)


def predict(rows, wo, po, w, relation, other_weights):
    """The other block's joint part from new rows of one block (the paper's prediction)."""
    e = rows.copy()
    for v, p in zip(wo, po):
        e -= np.outer(e @ v, p)
    return (e @ w.T) @ relation @ other_weights


def model(x, y, npred, nox, noy):
    e, tox, wox, pox = orthogonal(x, y, npred, nox)
    f, toy, woy, poy = orthogonal(y, x, npred, noy)
    u_, _, vt = np.linalg.svd(e.T @ f, full_matrices=False)
    w, c = u_[:, :npred], vt[:npred].T
    t, u = e @ w, f @ c
    return {
        "T": t.T, "U": u.T, "W": w.T, "C": c.T,
        "P": stepwise_loadings(e, t, w), "Q": stepwise_loadings(f, u, c),
        "TOX": tox, "WOX": wox, "POX": pox, "TOY": toy, "WOY": woy, "POY": poy,
        "BTU": np.linalg.lstsq(t, u, rcond=None)[0], "BUT": np.linalg.lstsq(u, t, rcond=None)[0],
        "XOfTOY": np.array([x.T @ s / (s @ s) for s in toy]).reshape(noy, x.shape[1]),
        "YOfTOX": np.array([y.T @ s / (s @ s) for s in tox]).reshape(nox, y.shape[1]),
    }


def values(name, v):
    v = np.ravel(v)
    if v.size == 0:
        return f"const double {name}[] = {{0.0}}; // empty\n"
    body = ",\n    ".join(", ".join(repr(float(a)) for a in v[k:k + 5]) for k in range(0, len(v), 5))
    return f"const double {name}[] = {{\n    {body}}};\n"


KEYS = ["T", "U", "W", "P", "C", "Q", "TOX", "WOX", "POX", "TOY", "WOY", "POY", "BTU", "BUT", "XOfTOY", "YOfTOX",
        "YHat", "XHat"]

x, y, xnew, ynew = blocks()
print("// Generated by tests/reference/o2pls.py (NumPy); do not edit.")
print(f"constexpr int O2PLSRows = {x.shape[0]};")
print(f"constexpr int O2PLSXCols = {x.shape[1]};")
print(f"constexpr int O2PLSYCols = {y.shape[1]};")
print(f"constexpr int O2PLSNewRows = {NEW};")
print("// Row-major.")
print(values("O2PLSX", x))
print(values("O2PLSY", y))
print("// Further wines, scaled with the means and deviations of the rows above.")
print(values("O2PLSNewX", xnew))
print(values("O2PLSNewY", ynew))
for k, (npred, nox, noy) in enumerate(CASES):
    fitted = model(x, y, npred, nox, noy)
    print(f"// {npred} joint, {nox} X-orthogonal, {noy} Y-orthogonal components; one row per component.")
    fitted["YHat"] = predict(xnew, fitted["WOX"], fitted["POX"], fitted["W"], fitted["BTU"], fitted["C"])
    fitted["XHat"] = predict(ynew, fitted["WOY"], fitted["POY"], fitted["C"], fitted["BUT"], fitted["W"])
    for key in KEYS:
        print(values(f"O2PLSCase{k}{key}", fitted[key]))
print("struct O2PLSReferenceCase {")
print("    int pred, orthX, orthY;")
print("    const double " + ", *".join(["*" + KEYS[0]] + KEYS[1:]) + ";")
print("};")
print("const O2PLSReferenceCase O2PLSCases[] = {")
for k, case in enumerate(CASES):
    refs = [f"O2PLSCase{k}{key}" for key in KEYS]
    lines = ",\n     ".join(", ".join(refs[i:i + 4]) for i in range(0, len(refs), 4))
    print(f"    {{{case[0]}, {case[1]}, {case[2]},\n     {lines}}},")
print("};")
