# The two set-up commands: `make run` and `make test`. Each installs what is missing,
# configures (once), builds and then runs the main job or every test.
PRESET ?= default
BUILD := build/$(PRESET)
JOBS ?= 2
QUORV := $(BUILD)/bin/quorv
PERSPECTIVE := net.quorv.render.cameraclass.perspective
RESOLUTION := net.quorv.render.camera.cameraparameters.screenresolution

.PHONY: deps configure build test run asan tsan bench fuzz clean

deps:
	@scripts/install-deps.sh

configure: deps
	@test -f $(BUILD)/build.ninja || cmake --preset $(PRESET)

build: configure
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET) -j $(JOBS)

run: build
	$(QUORV) classes
	@echo "Centre pixel of a 640x480 perspective camera:"
	echo '{"op":"CreateScreenRay","screen":[320,240]}' | \
	    $(QUORV) camera --class $(PERSPECTIVE) --param $(RESOLUTION)=[640,480]
	$(QUORV) ies info data/ies/example_spot.ies
	$(QUORV) ies preview data/ies/example_spot.ies -o preview.png
	@echo "Wrote preview.png"
	$(QUORV) intersect classes
	$(QUORV) intersect render --sphere 64 --size 512x512 -o sphere_depth.exr --normals sphere_normals.png
	@echo "Wrote sphere_depth.exr and sphere_normals.png"
	$(QUORV) preview providers
	$(QUORV) preview render --provider materialball --size 256x192 -o ball.png --strip ball_strip.png
	@echo "Wrote ball.png and ball_strip.png (the iterations side by side)"
	$(QUORV) nodes spaces --spaces data/nodes/spaces.json
	$(QUORV) nodes exchange --descriptions data/nodes --spaces data/nodes/spaces.json --space net.quorv.nodespace.standard
	$(QUORV) nodes world --descriptions data/nodes --spaces data/nodes/spaces.json < data/nodes/session.jsonl
	echo '{"spacename": "net.quorv.nodespace.standard"}' | $(QUORV) --language de nodes world --descriptions data/nodes
	$(QUORV) media formats
	$(QUORV) media detect data/ies/example_spot.ies
	$(QUORV) media import data/ies/example_spot.ies -o example_spot.png
	@echo "Wrote example_spot.png"

asan:
	$(MAKE) test PRESET=asan

tsan:
	$(MAKE) test PRESET=tsan

bench:
	$(MAKE) build PRESET=release
	build/release/bin/bench_frame
	build/release/bin/bench_bsdf
	build/release/bin/bench_ies
	build/release/bin/bench_batch
	PYTHONPATH=build/release/python /usr/bin/python3 bench/python_batch_bench.py
	build/release/bin/bench_cloth
	build/release/bin/bench_texture
	build/release/bin/bench_preview
	build/release/bin/bench_media
	build/release/bin/bench_intersect
	build/release/bin/bench_nodes
	build/release/bin/bench_bsdfcompare

# The reader under libFuzzer, in its own clang build; seeded from the test files, and every
# input that ever failed stays in fuzz/regressions and is replayed first.
FUZZ_SECONDS ?= 600
FUZZ_BUILD := build/fuzz
fuzz: deps
	@test -f $(FUZZ_BUILD)/build.ninja || cmake -S . -B $(FUZZ_BUILD) -G Ninja \
	    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++-14 -DQUORV_FUZZ=ON
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target ies_fuzz
	$(FUZZ_BUILD)/bin/ies_fuzz -runs=0 fuzz/regressions
	mkdir -p $(FUZZ_BUILD)/corpus
	$(FUZZ_BUILD)/bin/ies_fuzz -max_total_time=$(FUZZ_SECONDS) -max_len=65536 -timeout=20 \
	    -rss_limit_mb=2048 -print_final_stats=1 $(FUZZ_BUILD)/corpus fuzz/regressions \
	    tests/data/ies data/ies $(wildcard ../shared/testdata/ies)

clean:
	rm -rf build
