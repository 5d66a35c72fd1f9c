# The two set-up commands: `make run` and `make test`. Each installs what is missing,
# configures (once), builds and then runs the main job or every test.
PRESET ?= default
BUILD := build/$(PRESET)
JOBS ?= 2
QUORV := $(BUILD)/bin/quorv
PERSPECTIVE := net.quorv.render.cameraclass.perspective
RESOLUTION := net.quorv.render.camera.cameraparameters.screenresolution

.PHONY: deps configure build test run asan tsan bench clean

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

asan:
	$(MAKE) test PRESET=asan

tsan:
	$(MAKE) test PRESET=tsan

bench:
	$(MAKE) build PRESET=release
	build/release/bin/bench_frame

clean:
	rm -rf build
