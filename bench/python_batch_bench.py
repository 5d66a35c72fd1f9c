"""The Python side of the batch comparison: ns per element of Ies.intensity and BSDF.eval for a
million elements (bench_batch measures the same loops called from C++)."""
import os
import sys
import time

import numpy as np

import quorv

N = 1_000_000
ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


def directions(upper):
    d = np.random.default_rng(7).normal(size=(N, 3))
    d /= np.linalg.norm(d, axis=1, keepdims=True)
    if upper:
        d[:, 2] = np.abs(d[:, 2])
    return d


def best_ns_per_element(call, repeats=5):
    call()
    best = min(_timed(call) for _ in range(repeats))
    return best / N * 1e9


def _timed(call):
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


def main():
    host = quorv.Host(sys.argv[1] if len(sys.argv) > 1 else None)
    web = quorv.Ies.read(os.path.join(ROOT, "data", "ies", "example_spot.ies"))
    d = directions(False)
    print(f"Ies.intensity   N={N}: {best_ns_per_element(lambda: web.intensity(d)):.1f} ns/element")
    bsdf = host.create("net.quorv.render.bsdflegacyclass.ggxbrdf", {"BSDF_PARAM_ROUGHNESS": 0.4})
    wo = np.array([0.3, -0.2, 0.9327379053088815])
    wi = directions(True)
    print(f"BSDF.eval (GGX) N={N}: {best_ns_per_element(lambda: bsdf.eval(wo, wi)):.1f} ns/element")


if __name__ == "__main__":
    main()
