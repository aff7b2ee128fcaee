"""Fitted values of a two-component PLS model of Alcohol on the other twelve
variables of data/wine.csv, with both blocks scaled to unit variance, as an
independent reference for `veltan pls --fitted`.

Run from the repository root with the system interpreter, which has numpy and
scikit-learn: /usr/bin/python3 tests/cli/reference/pls_wine.py

scikit-learn scales by the standard deviation with n - 1; the tool does the
same, and for one response the fitted values in original units do not depend
on the divisor anyway (every X column is rescaled by the same factor).
"""
import csv

import numpy as np
from sklearn.cross_decomposition import PLSRegression

with open("data/wine.csv", newline="") as f:
    rows = list(csv.reader(f))
header = rows[0]
data = np.array([[float(v) for v in r[1:]] for r in rows[1:]])
names = [r[0] for r in rows[1:]]
response = header.index("Alcohol") - 1
y = data[:, response]
x = np.delete(data, response, axis=1)

model = PLSRegression(n_components=2, scale=True).fit(x, y)
fitted = model.predict(x).ravel()
ss = ((y - y.mean()) ** 2).sum()
print("R2Y(cum) %.6f" % (1 - ((y - fitted) ** 2).sum() / ss))
for i in (0, 1, 58, 59, 129, 177):
    print("%s %.6f" % (names[i], fitted[i]))
