"""The package points the engine at its message catalogues, found from the
package's own location (here: the build tree's locale folder)."""

import os
import subprocess
import sys

import pytest

FIT_CONSTANT_COLUMN = """
import numpy as np, veltancmat
x = np.random.default_rng(1).normal(size=(20, 3))
x[:, 1] = 2.0
try:
    veltancmat.PCA().fit(x)
except ValueError as e:
    print(e)
"""


def engine_message(**variables):
    env = {k: v for k, v in os.environ.items()
           if k not in ("LC_ALL", "LC_MESSAGES", "LANG", "LANGUAGE", "VELTANCMAT_LOCALEDIR")}
    env.update(variables)
    run = subprocess.run([sys.executable, "-c", FIT_CONSTANT_COLUMN], env=env, capture_output=True, text=True,
                         timeout=120)
    assert run.returncode == 0, run.stderr
    return run.stdout


@pytest.mark.parametrize("variables, expected", [
    ({"LANG": "de_DE.UTF-8"}, "Zu geringe Varianz"),
    ({"LANG": "C"}, "Too little variance"),
    # A folder named by the user wins over the one the package finds.
    ({"LANG": "de_DE.UTF-8", "VELTANCMAT_LOCALEDIR": os.devnull}, "Too little variance"),
])
def test_catalogue_found_beside_the_package(variables, expected):
    assert expected in engine_message(**variables)
