"""Reference figures of a one-response OPLS model of Alcohol on the other
twelve variables of data/wine.csv (both blocks scaled to unit variance), for
the tests of `veltan opls` and of `veltan predict` with an OPLS model.

The model follows the published single-response algorithm (Trygg and Wold,
J. Chemometrics 16 (2002) 119-128) and is written in plain Python so that it
runs with any interpreter: python3 tests/cli/reference/opls_wine.py

Printed: R2X of the predictive and of the orthogonal part and R2Y for 0, 1
and 2 orthogonal components, then for one orthogonal component the fitted
values and |to1| of a few rows, their predictions as the library's
predictor makes them, and the prediction of a row that the model did not
see, changed from row 1 (the scaling stays the training table's).

The library's predictor takes a new row's orthogonal score after removing
the current stage's predictive part t p' (p the stage's loading), where the
published algorithm projects the row on w_o directly; the fit is the same.
predict_as_library follows the library, so a training row's prediction is
not its fitted value once there are orthogonal components.
"""
import csv
import math

with open("data/wine.csv", newline="") as f:
    rows = list(csv.reader(f))
header = rows[0]
data = [[float(v) for v in r[1:]] for r in rows[1:]]
response = header.index("Alcohol") - 1
n = len(data)
raw_y = [r[response] for r in data]
raw_x = [[v for j, v in enumerate(r) if j != response] for r in data]
k = len(raw_x[0])


def moments(column):
    mean = sum(column) / len(column)
    sd = math.sqrt(sum((v - mean) ** 2 for v in column) / (len(column) - 1))
    return mean, sd


x_scale = [moments([r[j] for r in raw_x]) for j in range(k)]
y_mean, y_sd = moments(raw_y)


def scale_row(r):
    return [(v - m) / s for v, (m, s) in zip(r, x_scale)]


def dot(a, b):
    return sum(p * q for p, q in zip(a, b))


def fit(orthogonal):
    x = [scale_row(r) for r in raw_x]
    y = [(v - y_mean) / y_sd for v in raw_y]
    ss_x = sum(dot(r, r) for r in x)
    w = [sum(x[i][j] * y[i] for i in range(n)) for j in range(k)]
    norm = math.sqrt(dot(w, w))
    w = [v / norm for v in w]
    filters, ss_o = [], 0.0
    for _ in range(orthogonal):
        t = [dot(r, w) for r in x]
        p = [sum(x[i][j] * t[i] for i in range(n)) / dot(t, t) for j in range(k)]
        wo = [pj - dot(w, p) * wj for pj, wj in zip(p, w)]
        norm = math.sqrt(dot(wo, wo))
        wo = [v / norm for v in wo]
        to = [dot(r, wo) for r in x]
        po = [sum(x[i][j] * to[i] for i in range(n)) / dot(to, to) for j in range(k)]
        x = [[v - to[i] * po[j] for j, v in enumerate(r)] for i, r in enumerate(x)]
        filters.append((wo, po, to))
    # The orthogonal parts' sum of squares, all components together.
    for i in range(n):
        for j in range(k):
            part = sum(f[2][i] * f[1][j] for f in filters)
            ss_o += part * part
    t = [dot(r, w) for r in x]
    p = [sum(x[i][j] * t[i] for i in range(n)) / dot(t, t) for j in range(k)]
    c = dot(y, t) / dot(t, t)
    ss_p = dot(t, t) * dot(p, p)
    fitted = [ti * c for ti in t]
    r2y = 1 - sum((a - b) ** 2 for a, b in zip(y, fitted)) / dot(y, y)
    return ss_p / ss_x, ss_o / ss_x, r2y, w, p, c, filters, fitted


def predict(model, raw_row):
    w, p, c, filters = model[3], model[4], model[5], model[6]
    e = scale_row(raw_row)
    tos = []
    for wo, po, _ in filters:
        to = dot(e, wo)
        e = [v - to * q for v, q in zip(e, po)]
        tos.append(to)
    return dot(e, w) * c * y_sd + y_mean, tos


def predict_as_library(raw_row, orthogonal):
    stages = [fit(a) for a in range(orthogonal + 1)]
    e = scale_row(raw_row)
    tos = []
    for a in range(orthogonal):
        w, p = stages[a][3], stages[a][4]
        t = dot(e, w)
        rest = [v - t * q for v, q in zip(e, p)]
        wo, po, _ = stages[orthogonal][6][a]
        to = dot(rest, wo)
        e = [v - to * q for v, q in zip(e, po)]
        tos.append(to)
    final = stages[orthogonal]
    return dot(e, final[3]) * final[5] * y_sd + y_mean, tos


for a in range(3):
    r2xp, r2xo, r2y = fit(a)[:3]
    print("1+%d R2X(pred) %.6f R2X(orth) %.6f R2Y %.6f" % (a, r2xp, r2xo, r2y))
model = fit(1)
for i in (0, 1, 58, 59, 129, 177):
    value, tos = predict_as_library(raw_x[i], 1)
    print("row %d fitted %.6f |to1| %.6f predicted %.6f |to1| %.6f"
          % (i, model[7][i] * y_sd + y_mean, abs(model[6][0][2][i]), value, abs(tos[0])))
new = list(raw_x[0])
new[0] += 1.0   # Malic acid
new[8] -= 2.0   # Color intensity
value, tos = predict(model, new)
print("new row, published predictor %.6f |to1| %.6f" % (value, abs(tos[0])))
value, tos = predict_as_library(new, 1)
print("new row, library's predictor %.6f |to1| %.6f" % (value, abs(tos[0])))
