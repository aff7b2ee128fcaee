#!/usr/bin/env python3
"""Reference values of the column kernel density (Gaussian kernel, Scott's
bandwidth s * n^(-1/5) with the n-1 standard deviation), from scipy."""
import numpy as np
from scipy.stats import gaussian_kde

values = np.array([1.0, 2.0, 4.0, 7.0])
kde = gaussian_kde(values)  # bw_method='scott'
for x in (0.0, 3.0, 8.0):
    print(f"density({x}) = {kde(x)[0]:.8f}")
