"""Shared fixtures of the Python suite, and two guards: the package under test is the build's
(not some other copy on the path), and a run that collects too few tests fails instead of
passing silently."""

import os
import pathlib

import numpy as np
import pytest

import kelmatrix

# The suite has far more tests than this; fewer collected means files or tests went missing.
MIN_TESTS = 40
EPS = np.finfo(float).eps


def pytest_collection_finish(session):
    if len(session.items) < MIN_TESTS and not session.config.option.keyword:
        raise pytest.UsageError(f"only {len(session.items)} tests collected, expected at least "
                                f"{MIN_TESTS}: the suite is incomplete")


def pytest_sessionstart(session):
    expected = os.environ.get("KELMATRIX_PYTHON_EXPECT_DIR")
    if expected:
        got = pathlib.Path(kelmatrix.__file__).resolve().parent
        if got != pathlib.Path(expected).resolve():
            raise pytest.UsageError(f"kelmatrix imported from {got}, expected {expected}")


@pytest.fixture
def rng():
    return np.random.default_rng(20261125)


@pytest.fixture(scope="session")
def matrices():
    """The collection matrices beside the checkout (or where KELMATRIX_TEST_MATRICES says);
    missing, the tests that need them fail rather than skip."""
    root = pathlib.Path(__file__).resolve().parents[2]
    path = pathlib.Path(os.environ.get("KELMATRIX_TEST_MATRICES",
                                       root.parent / "shared" / "data" / "matrices"))
    assert path.is_dir(), f"collection matrices not found at {path}"
    return path


def spd_band(rng, n, bw, shift=1.0):
    """A random SPD matrix of half-bandwidth bw (diagonally dominant by shift) as a dense array
    and in SciPy's upper band form."""
    a = np.zeros((n, n))
    for k in range(1, bw + 1):
        d = rng.uniform(-1, 1, n - k)
        a += np.diag(d, k) + np.diag(d, -k)
    a += np.diag(np.abs(a).sum(axis=1) + shift)
    return a, upper_band(a, bw)


def upper_band(a, bw):
    n = a.shape[0]
    ab = np.zeros((bw + 1, n))
    for k in range(bw + 1):
        ab[bw - k, k:] = np.diag(a, k)
    return ab


def lower_band(a, bw):
    n = a.shape[0]
    ab = np.zeros((bw + 1, n))
    for k in range(bw + 1):
        ab[k, :n - k] = np.diag(a, -k)
    return ab


def forward_bound(a, factor=20.0):
    """A bound on the relative forward error of a backward-stable solve: factor * n * eps *
    cond(a)."""
    return factor * a.shape[0] * EPS * np.linalg.cond(a)


def rel_err(x, ref):
    return np.linalg.norm(x - ref) / np.linalg.norm(ref)
