"""Writes data/fill-weights.csv, the synthetic series the `veltan chart`
examples use: 125 fill weights (grams) of a filling line, five bottles
sampled every 15 minutes. The process runs at 500 g with a standard
deviation of 2 g; for samples s091 to s105 (subgroups 18 to 20 in fives,
counted from 0) the line overfills by 3.5 g, which the charts should flag.
The weight of s038 is missing.

    python3 scripts/fill_weights.py > data/fill-weights.csv

Only the standard library is used, with a fixed seed, so the file is
reproduced exactly.
"""
import random

rng = random.Random(20261125)
print("sample,minute,weight")
for i in range(125):
    minute = 15 * (i // 5) + (i % 5)
    shift = 3.5 if 90 <= i < 105 else 0.0
    weight = 500.0 + shift + rng.gauss(0.0, 2.0)
    cell = "" if i == 37 else f"{weight:.1f}"
    print(f"s{i + 1:03d},{minute},{cell}")
