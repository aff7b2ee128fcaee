"""Eigenvalues of the correlation matrix of data/wine.csv, the reference for
the tool's R2X and eigenvalue columns (unit-variance PCA). Plain Python,
cyclic Jacobi rotations, no third-party packages.

Run from the repository root: python3 tests/cli/reference/wine_pca.py
"""
import csv
import math

with open("data/wine.csv", newline="") as f:
    rows = list(csv.reader(f))[1:]
x = [[float(v) for v in r[1:]] for r in rows]
n, k = len(x), len(x[0])
mean = [sum(r[j] for r in x) / n for j in range(k)]
sd = [math.sqrt(sum((r[j] - mean[j]) ** 2 for r in x) / (n - 1)) for j in range(k)]
z = [[(r[j] - mean[j]) / sd[j] for j in range(k)] for r in x]
a = [[sum(r[i] * r[j] for r in z) / (n - 1) for j in range(k)] for i in range(k)]

for sweep in range(100):
    off = sum(a[i][j] ** 2 for i in range(k) for j in range(k) if i != j)
    if off < 1e-24:
        break
    for p in range(k):
        for q in range(p + 1, k):
            if abs(a[p][q]) < 1e-300:
                continue
            theta = (a[q][q] - a[p][p]) / (2 * a[p][q])
            t = math.copysign(1.0, theta) / (abs(theta) + math.sqrt(theta * theta + 1))
            c = 1 / math.sqrt(t * t + 1)
            s = t * c
            for r in range(k):
                arp, arq = a[r][p], a[r][q]
                a[r][p], a[r][q] = c * arp - s * arq, s * arp + c * arq
            for r in range(k):
                apr, aqr = a[p][r], a[q][r]
                a[p][r], a[q][r] = c * apr - s * aqr, s * apr + c * aqr

eig = sorted((a[i][i] for i in range(k)), reverse=True)
print("eigenvalues", ["%.6f" % e for e in eig[:5]])
print("R2X", ["%.6f" % (e / k) for e in eig[:5]])
