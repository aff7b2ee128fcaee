#!/usr/bin/env python3
"""The wavelet filters and the reference transforms for their tests.

    /usr/bin/python3 tests/reference/wavelets.py tables > veltancmat/signal/WaveletFilterTables.inc
    /usr/bin/python3 tests/reference/wavelets.py fixture > tests/signal/fixtures/WaveletReference.inc

tables: the scaling filters of every family, exact to double precision.
  - Daubechies: spectral factorisation of the Daubechies polynomial
    (Ten Lectures, chapter 6), minimum-phase roots, computed at 50 digits.
  - Symmlet and Coiflet: the published tables (as PyWavelets carries them)
    polished by Gauss-Newton at 50 digits onto the relations that define
    them: orthonormality under double shifts, the sum sqrt 2, the wavelet's
    vanishing moments and, for the Coiflets, the scaling function's.
  - Beylkin: the published 18 taps (15 significant digits, Beylkin 1992)
    polished onto orthonormality by the smallest correction.
  - Biorthogonal spline pairs: the exact rational filters of Cohen,
    Daubechies and Feauveau (Ten Lectures, chapter 8) times sqrt 2.
  Every table is checked against PyWavelets' filter of the same name where
  one exists.

fixture: a float32 series and, from PyWavelets (mode "periodization",
float64 arithmetic on the float32 values), its coefficients at every
level of wavedec and universal-threshold denoised series.
"""
import sys
from fractions import Fraction
from math import comb

import mpmath as mp
import numpy as np
import pywt

mp.mp.dps = 50
SQRT2 = mp.sqrt(2)

BEYLKIN_PUBLISHED = [
    "0.099305765374353", "0.424215360812961", "0.699825214056600", "0.449718251149468",
    "-0.110927598348234", "-0.264497231446384", "0.026900308803690", "0.155538731877093",
    "-0.017520746266529", "-0.088543630622924", "0.019679866044322", "0.042916387274192",
    "-0.017460408696028", "-0.014365807968852", "0.010040411844631", "0.0014842347824723",
    "-0.002736031626258", "0.0006404853285212"]

# Biorthogonal1..6: (primal spline order N, dual order Nd), PyWavelets "biorN.Nd".
BIORTHOGONAL = [(1, 3), (1, 5), (2, 2), (2, 4), (3, 3), (3, 5)]


def daubechies(taps):
    """Minimum-phase Daubechies scaling filter, sum sqrt 2."""
    n = taps // 2
    # P(y) = sum C(n-1+k, k) y^k with y = (2 - z - 1/z) / 4; times z^(n-1)
    # it is a polynomial in z whose roots come in pairs r, 1/r.
    poly = [mp.mpf(0)] * (2 * n - 1)
    for k in range(n):
        term = [mp.mpf(1)]
        for _ in range(k):  # multiply by (-z^2 + 2z - 1) / 4, i.e. y z
            nxt = [mp.mpf(0)] * (len(term) + 2)
            for i, c in enumerate(term):
                nxt[i] += -c / 4
                nxt[i + 1] += c / 2
                nxt[i + 2] += -c / 4
            term = nxt
        shift = n - 1 - k
        for i, c in enumerate(term):
            poly[i + shift] += comb(n - 1 + k, k) * c
    roots = mp.polyroots(poly[::-1], maxsteps=400, extraprec=400) if n > 1 else []
    inside = [r for r in roots if abs(r) < 1]
    h = [mp.mpc(1)]
    for r in inside + [-1] * n:
        nxt = [mp.mpc(0)] * (len(h) + 1)
        for i, c in enumerate(h):
            nxt[i] += -r * c
            nxt[i + 1] += c
        h = nxt
    # h[i] multiplies z^i; the published tables list the taps from the
    # highest power (h_0 = (1 + sqrt 3) / (4 sqrt 2) for four taps).
    h = [mp.re(c) for c in reversed(h)]
    scale = SQRT2 / sum(h)
    return [c * scale for c in h]


def relations(h, wavelet_moments, scaling_moments):
    """Residuals of the relations an orthonormal scaling filter satisfies,
    and their Jacobian (the relations are linear or quadratic in h)."""
    L = len(h)
    rows, jac = [], []
    rows.append(sum(h) - SQRT2)
    jac.append([mp.mpf(1)] * L)
    for shift in range(0, L // 2):
        d = 2 * shift
        rows.append(sum(h[k] * h[k + d] for k in range(L - d)) - (1 if shift == 0 else 0))
        jac.append([(h[j + d] if j + d < L else 0) + (h[j - d] if j - d >= 0 else 0) for j in range(L)])
    # The wavelet g_k = (-1)^k h_{L-1-k}: sum k^m g_k = 0. Moment 0 follows
    # from the rest, but only as a square root (|H(pi)|^2 = 2 - |H(0)|^2):
    # without it Newton's method creeps towards H(pi) = 0 and stops at 1e-15.
    for m in range(0, max(wavelet_moments, 1)):
        coef = [mp.mpf(0)] * L
        for k in range(L):
            coef[L - 1 - k] = (-1) ** k * mp.mpf(k) ** m
        rows.append(sum(c * x for c, x in zip(coef, h)))
        jac.append(coef)
    if scaling_moments:
        centre = mp.nint(sum(k * h[k] for k in range(L)) / SQRT2)
        for m in range(1, scaling_moments):
            coef = [(k - centre) ** m for k in range(L)]
            rows.append(sum(c * x for c, x in zip(coef, h)))
            jac.append(coef)
    return rows, jac


def polish(h, wavelet_moments=0, scaling_moments=0):
    """Gauss-Newton steps of least norm onto the relations."""
    h = [mp.mpf(c) for c in h]
    for _ in range(40):
        r, jac = relations(h, wavelet_moments, scaling_moments)
        if max(abs(x) for x in r) < mp.mpf(10) ** -45:
            break
        J = mp.matrix(jac)
        # the step J^+ r through the singular value decomposition
        U, S, V = mp.svd_r(J)
        step = [mp.mpf(0)] * len(h)
        for k in range(len(S)):
            if S[k] > mp.mpf(10) ** -25 * S[0]:
                coef = sum(U[i, k] * r[i] for i in range(len(r))) / S[k]
                for j in range(len(h)):
                    step[j] += coef * V[k, j]
        h = [h[j] - step[j] for j in range(len(h))]
    residual = max(abs(x) for x in relations(h, wavelet_moments, scaling_moments)[0])
    assert residual < mp.mpf(10) ** -30, residual
    return h


def spline_pair(N, Nd):
    """(analysis, synthesis) lowpass of the CDF spline pair as Fractions
    summing to 1: synthesis ((1+z)/2)^N, analysis ((1+z)/2)^Nd times the
    polynomial sum_n C(l-1+n, n) ((2 - z - 1/z)/4)^n with l = (N + Nd)/2."""
    def mul(a, b):
        out = [Fraction(0)] * (len(a) + len(b) - 1)
        for i, x in enumerate(a):
            for j, y in enumerate(b):
                out[i + j] += x * y
        return out

    synthesis = [Fraction(1)]
    for _ in range(N):
        synthesis = mul(synthesis, [Fraction(1, 2), Fraction(1, 2)])
    l = (N + Nd) // 2
    q = [Fraction(0)] * (2 * l - 1)  # in powers of z, shifted by l - 1
    for n in range(l):
        term = [Fraction(1)]
        for _ in range(n):
            term = mul(term, [Fraction(-1, 4), Fraction(1, 2), Fraction(-1, 4)])
        shift = l - 1 - n
        for i, c in enumerate(term):
            q[i + shift] += comb(l - 1 + n, n) * c
    analysis = q
    for _ in range(Nd):
        analysis = mul(analysis, [Fraction(1, 2), Fraction(1, 2)])
    return analysis, synthesis


def placed(values, reference):
    """values placed in a zero array of reference's length at the offset
    (and orientation) that matches the reference numerically."""
    ref = np.array(reference, dtype=float)
    for v in (values, values[::-1]):
        for off in range(len(ref) - len(v) + 1):
            full = [mp.mpf(0)] * len(ref)
            for i, c in enumerate(v):
                full[off + i] = c
            if np.allclose([float(c) for c in full], ref, rtol=0, atol=1e-13):
                return full
    raise AssertionError("no placement matches PyWavelets")


def same(h, reference, what, tolerance=2e-14):
    err = max(abs(float(a) - b) for a, b in zip(h, reference))
    print(f"{what}: largest difference from PyWavelets {err:.2g}", file=sys.stderr)
    assert len(h) == len(reference) and err < tolerance, (what, err)


def orthogonal_tables():
    tables = []
    for taps in range(4, 21, 2):
        h = daubechies(taps)
        same(h, pywt.Wavelet(f"db{taps // 2}").rec_lo, f"db{taps // 2}")
        tables.append((f"Daubechies{taps}", h))
    for n in range(4, 11):
        h = polish(pywt.Wavelet(f"sym{n}").rec_lo, wavelet_moments=n)
        # PyWavelets' Symmlet tables hold about 13 digits: their double-shift
        # sums miss 0 and 1 by up to 8e-13.
        same(h, pywt.Wavelet(f"sym{n}").rec_lo, f"sym{n}", 5e-12)
        tables.append((f"Symmlet{n}", h))
    for n in range(1, 6):
        h = polish(pywt.Wavelet(f"coif{n}").rec_lo, wavelet_moments=2 * n, scaling_moments=2 * n)
        same(h, pywt.Wavelet(f"coif{n}").rec_lo, f"coif{n}")
        tables.append((f"Coiflet{n}", h))
    published = [mp.mpf(c) for c in BEYLKIN_PUBLISHED]
    # Orthonormal with three vanishing moments, as published.
    h = polish(published, wavelet_moments=3)
    assert max(abs(a - b) for a, b in zip(h, published)) < 1e-14
    tables.append(("Beylkin18", h))
    return tables


def biorthogonal_tables():
    tables = []
    for k, (N, Nd) in enumerate(BIORTHOGONAL, start=1):
        w = pywt.Wavelet(f"bior{N}.{Nd}")
        analysis, synthesis = spline_pair(N, Nd)
        # The library's analysis filter runs forward over the series
        # (correlation): PyWavelets' dec_lo reversed. Synthesis is rec_lo.
        a = placed([SQRT2 * mp.mpf(c.numerator) / c.denominator for c in analysis], w.dec_lo[::-1])
        s = placed([SQRT2 * mp.mpf(c.numerator) / c.denominator for c in synthesis], w.rec_lo)
        tables.append((f"Biorthogonal{k}", a, s, f"bior{N}.{Nd}"))
    return tables


def number(c):
    return mp.nstr(c, 20, min_fixed=-30, max_fixed=30, strip_zeros=False)


def emit_tables():
    print("// Generated by tests/reference/wavelets.py tables: the scaling filters at")
    print("// 20 significant digits, in the orientation of the published tables")
    print("// (h_0 first). Biorthogonal pairs give the analysis filter as it runs over")
    print("// the series and the synthesis filter, zero-padded to one even length.")
    print("// clang-format off")
    for name, h in orthogonal_tables():
        print(f"constexpr double {name}[] = {{")
        for i in range(0, len(h), 3):
            print("    " + ", ".join(number(c) for c in h[i:i + 3]) + ",")
        print("};")
    for name, a, s, pyname in biorthogonal_tables():
        for part, v in (("Analysis", a), ("Synthesis", s)):
            print(f"// {pyname}")
            print(f"constexpr double {name}{part}[] = {{")
            for i in range(0, len(v), 3):
                print("    " + ", ".join(number(c) for c in v[i:i + 3]) + ",")
            print("};")
    print("// clang-format on")


FIXTURE_FILTERS = ([("Daubechies", t, f"db{t // 2}") for t in range(4, 21, 2)]
                   + [("Symmlet", n, f"sym{n}") for n in range(4, 11)]
                   + [("Coiflet", n, f"coif{n}") for n in range(1, 6)]
                   + [(f"Biorthogonal{k}", 0, f"bior{N}.{Nd}") for k, (N, Nd) in enumerate(BIORTHOGONAL, start=1)])


def emit_fixture():
    rng = np.random.default_rng(20261125)
    n = 256
    t = np.arange(n)
    series = (np.sin(2 * np.pi * t / 37.0) + 0.5 * np.sign(np.sin(2 * np.pi * t / 90.0))
              + 0.002 * t + 0.3 * rng.standard_normal(n)).astype(np.float32)
    x = series.astype(np.float64)

    def doubles(v):
        v = list(v)
        rows = [", ".join(f"{float(c):.17g}" for c in v[i:i + 6]) for i in range(0, len(v), 6)]
        return ",\n    ".join(rows)

    print("// Generated by tests/reference/wavelets.py fixture (PyWavelets "
          f"{pywt.__version__}, mode periodization).")
    print("// clang-format off")
    print("namespace wref {")
    print(f"constexpr int Length = {n};")
    print("constexpr float Series[] = {")
    rows = [", ".join(f"{float(c)!r}f" for c in series[i:i + 6]) for i in range(0, n, 6)]
    print("    " + ",\n    ".join(rows) + "};")
    print("struct Case { const char* family; int parameter; const char* pywt; int levels; const double* packed; };")
    cases = []
    for family, parameter, pyname in FIXTURE_FILTERS:
        for levels in (8,):
            coeffs = pywt.wavedec(x, pyname, mode="periodization", level=levels)
            packed = np.concatenate(coeffs)
            back = pywt.waverec(coeffs, pyname, mode="periodization")
            assert np.abs(back - x).max() < 1e-9
            ident = f"{pyname.replace('.', '_')}_{levels}"
            print(f"constexpr double {ident}[] = {{\n    {doubles(packed)}}};")
            cases.append((family, parameter, pyname, levels, ident))
    print("constexpr Case Cases[] = {")
    for family, parameter, pyname, levels, ident in cases:
        print(f'    {{"{family}", {parameter}, "{pyname}", {levels}, {ident}}},')
    print("};")

    # Universal-threshold denoising (Donoho and Johnstone 1994): sigma from
    # the finest details' median absolute value, details of every level
    # thresholded, the smooth kept.
    for pyname, levels, mode in (("db8", 5, "soft"), ("sym8", 6, "hard"), ("bior2.4", 4, "soft")):
        coeffs = pywt.wavedec(x, pyname, mode="periodization", level=levels)
        sigma = np.median(np.abs(coeffs[-1])) / 0.6745
        lam = sigma * np.sqrt(2.0 * np.log(n))
        kept = [coeffs[0]] + [pywt.threshold(c, lam, mode=mode) for c in coeffs[1:]]
        denoised = pywt.waverec(kept, pyname, mode="periodization")
        ident = f"Denoised_{pyname.replace('.', '_')}_{mode}"
        print(f"constexpr double {ident}Threshold = {lam:.17g};")
        print(f"constexpr double {ident}[] = {{\n    {doubles(denoised)}}};")
    print("} // namespace wref")
    print("// clang-format on")


if __name__ == "__main__":
    what = sys.argv[1] if len(sys.argv) > 1 else "tables"
    emit_tables() if what == "tables" else emit_fixture()
