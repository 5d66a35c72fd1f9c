"""The Python module against the command line's own numbers, its array checks and errors, and
the interpreter lock released while a batch runs."""
import json
import os
import subprocess
import threading
import time

import numpy as np
import pytest

import quorv

CLI = os.environ["QUORV_CLI_PATH"]
MODULE = os.environ["QUORV_TEST_MODULE"]
SOURCE = os.environ["QUORV_SOURCE_DIR"]
EXAMPLE = os.path.join(SOURCE, "data", "ies", "example_spot.ies")
GGX = "net.quorv.render.bsdflegacyclass.ggxbrdf"
PERSPECTIVE = "net.quorv.render.cameraclass.perspective"
RESOLUTION = "net.quorv.render.camera.cameraparameters.screenresolution"


@pytest.fixture(scope="module")
def host():
    return quorv.Host(MODULE)


def cli_lines(args, lines):
    """Runs the command line with JSON lines on stdin; one parsed answer per line."""
    out = subprocess.run([CLI, "--module", MODULE] + args, input="\n".join(json.dumps(l) for l in lines),
                         capture_output=True, text=True, check=True).stdout
    return [json.loads(l) for l in out.splitlines()]


def directions(n, seed):
    d = np.random.default_rng(seed).normal(size=(n, 3))
    return d / np.linalg.norm(d, axis=1, keepdims=True)


def test_bsdf_values_are_the_bits_of_the_command_line(host):
    bsdf = host.create(GGX, {"BSDF_PARAM_ROUGHNESS": 0.35})
    wo = np.array([0.3, -0.2, 0.9327379053088815])
    wi = directions(40, 1)
    wi[:, 2] = np.abs(wi[:, 2])
    values, pdfs = bsdf.eval(wo, wi)
    assert values.shape == (40, 3) and pdfs.shape == (40,)
    answers = cli_lines(["bsdf", "eval", "--class", GGX, "--param", "BSDF_PARAM_ROUGHNESS=0.35"],
                        [{"op": "ComputeBSDF", "wo": wo.tolist(), "wi": w.tolist()} for w in wi])
    assert [a["value"] for a in answers] == values.tolist()
    assert [a["pdf"] for a in answers] == pdfs.tolist()
    assert (values[:, 0] > 0).sum() > 10, "most pairs lie in the lobe"

    samples = np.arange(0, 64000, 1000)
    values, pdfs, wi = bsdf.sample(wo, samples)
    answers = cli_lines(["bsdf", "eval", "--class", GGX, "--param", "BSDF_PARAM_ROUGHNESS=0.35"],
                        [{"op": "SampleF", "wo": wo.tolist(), "sample": int(s)} for s in samples])
    assert [a["value"] for a in answers] == values.tolist()
    assert [a["pdf"] for a in answers] == pdfs.tolist()
    assert [a["wi"] for a in answers] == wi.tolist()


def test_intensity_and_rays_are_the_bits_of_the_command_line(host):
    web = quorv.Ies.read(EXAMPLE)
    d = directions(50, 2)
    got = web.intensity(d)
    answers = cli_lines(["ies", "intensity", EXAMPLE], [v.tolist() for v in d])
    assert answers == got.tolist()
    assert web.properties["nV"] == 37 and web.properties["version"] == "V2002"
    assert web.text().startswith(b"IESNA:LM-63-2002\n")

    camera = host.create(PERSPECTIVE, {RESOLUTION: [640, 480]})
    screen = np.array([[0.5, 0.5], [320, 240], [639.5, 10.25]])
    rays = camera.rays(screen)
    answers = cli_lines(["camera", "--class", PERSPECTIVE, "--param", RESOLUTION + "=[640,480]"],
                        [{"op": "CreateScreenRay", "screen": s.tolist()} for s in screen])
    for name in ("origin", "direction", "originDx", "directionDy"):
        assert [a["ray"][name] for a in answers] == rays[name].tolist()


def test_preview_is_a_float32_picture(host):
    web = quorv.Ies.read(EXAMPLE)
    picture = web.preview(32)
    assert picture.dtype == np.float32 and picture.shape == (32, 32)
    assert picture.max() > 0 and np.isfinite(picture).all() and (picture >= 0).all()
    # Only the order of the bounce's Float32 sums, which follows the scheduling, may differ.
    assert np.allclose(web.preview(32), picture, rtol=1e-5, atol=0)


def test_other_layouts_are_converted_and_bad_shapes_refused(host):
    bsdf = host.create(GGX, {"BSDF_PARAM_ROUGHNESS": 0.5})
    wi = np.array([[0.1, 0.2, 0.97], [0.3, 0.0, 0.9], [-0.5, 0.1, 0.8]])
    reference, _ = bsdf.eval([0, 0, 1], wi)
    strided = np.zeros((3, 6))
    strided[:, ::2] = wi
    assert np.array_equal(bsdf.eval([0, 0, 1], strided[:, ::2])[0], reference)
    assert np.array_equal(bsdf.eval(np.array([0, 0, 1], dtype=np.int32), wi.tolist())[0], reference)
    as32 = bsdf.eval([0, 0, 1], wi.astype(np.float32))[0]
    assert np.allclose(as32, reference, rtol=1e-5) and not np.array_equal(as32, reference)

    with pytest.raises(ValueError, match=r"wi must have shape \(N, 3\), not \(3, 2\)"):
        bsdf.eval([0, 0, 1], np.zeros((3, 2)))
    with pytest.raises(ValueError, match=r"wo must have shape \(3,\) or \(N, 3\), not \(4,\)"):
        bsdf.eval(np.zeros(4), wi)
    with pytest.raises(ValueError, match="the same length"):
        bsdf.eval(np.zeros((2, 3)), wi)
    with pytest.raises(TypeError, match="must hold numbers"):
        bsdf.eval([0, 0, 1], np.array([["a", "b", "c"]]))
    with pytest.raises(TypeError, match="integer indices"):
        bsdf.sample([0, 0, 1], np.array([1.5]))
    with pytest.raises(ValueError, match="sample index 65536 is outside 0..65535"):
        bsdf.sample([0, 0, 1], np.array([65536]))
    with pytest.raises(ValueError, match="size must be between 1 and 8192"):
        quorv.Ies.read(EXAMPLE).preview(0)


def test_errors_carry_the_module_messages(host, tmp_path):
    with pytest.raises(quorv.Error, match="Cannot load module /nonexistent/lib.so: No such file or directory"):
        quorv.Host("/nonexistent/lib.so")
    truncated = tmp_path / "cut.so"
    truncated.write_bytes(open(MODULE, "rb").read()[:150000])
    with pytest.raises(quorv.Error, match="truncated"):
        quorv.Host(str(truncated))
    with pytest.raises(quorv.Error, match="Is a directory"):
        quorv.Ies.read(str(tmp_path))
    bad = tmp_path / "bad.ies"
    bad.write_text("IESNA:LM-63-2002\n")
    with pytest.raises(quorv.Error, match="IES Header incomplete"):
        quorv.Ies.read(str(bad))
    with pytest.raises(quorv.Error, match="No class net.quorv.nothing"):
        host.create("net.quorv.nothing")
    with pytest.raises(quorv.Error, match="Unknown BSDF parameter key NOPE"):
        host.create(GGX, {"NOPE": 1})
    with pytest.raises(quorv.Error, match="Unknown parameter key"):
        host.create(PERSPECTIVE, {"net.quorv.nokey": 1})


def test_a_batch_releases_the_interpreter_lock(host):
    web = quorv.Ies.read(EXAMPLE)
    ticks = 0
    running = True

    def count():
        nonlocal ticks
        while running:
            ticks += 1
            time.sleep(0)

    thread = threading.Thread(target=count)
    thread.start()
    try:
        time.sleep(0.05)
        before = ticks
        web.preview(1024)  # about a second of C++ work
        during = ticks - before
    finally:
        running = False
        thread.join()
    assert during > 100, "the other thread ran Python while the preview rendered"


def test_texture_samples_are_the_bits_of_the_command_line(host):
    picture = os.path.join(SOURCE, "tests", "data", "textures", "rgb8_7x5.png")
    texture = quorv.Texture.load(picture)
    assert texture.info["width"] == 7 and texture.info["height"] == 5
    uv = np.random.default_rng(3).uniform(-0.2, 1.2, size=(30, 2))
    for settings in ({}, {"interpolation": "BICUBIC", "mode": "REPEAT"},
                     {"interpolation": "MIP", "mode_u": "MIRROR", "mode_v": "EXTEND", "color_space": "LINEAR"}):
        footprint = [0.05, 0.02]
        got = texture.sample(uv, footprint=footprint, **settings)
        assert got.shape == (30, 4)
        line = {"footprint": footprint}
        names = {"mode": "mode", "mode_u": "modeU", "mode_v": "modeV", "interpolation": "interpolation",
                 "color_space": "colorSpace"}
        line.update({names[k]: v for k, v in settings.items()})
        answers = cli_lines(["texture", "sample", picture], [dict(line, uv=p.tolist()) for p in uv])
        assert [a["rgba"] for a in answers] == got.tolist(), settings
    with pytest.raises(ValueError, match="interpolation must be one of NONE, LINEAR"):
        texture.sample(uv, interpolation="TRILINEAR")
    with pytest.raises(quorv.Error, match="missing.png"):
        quorv.Texture.load(os.path.join(SOURCE, "missing.png"))
