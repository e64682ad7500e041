# QRV IPM. `make demo` runs the main job, `make test` builds and tests every
# configuration. Both first install the Debian packages the build needs (as root).
JOBS ?= 2

.PHONY: all deps build demo test bench clean

all: build

deps:
	@cmake/scripts/install-packages.sh

build: deps
	@cmake --preset native >/dev/null
	@cmake --build --preset native -j $(JOBS)

demo: build
	build/native/tools/ipm-run/ipm-run --list

test: deps
	@JOBS=$(JOBS) cmake/scripts/test-all.sh

bench: build
	@echo "benchmarks arrive with the converters"

clean:
	rm -rf build
