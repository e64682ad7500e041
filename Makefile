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
	@rm -rf ipm-out
	build/native/tools/ipm-run/ipm-run --size 1280x720 --fps 30 --frames 90 --out ipm-out --save-every 30
	@echo "Open the pictures in $(CURDIR)/ipm-out/ (frame*-step0-RGB888.png, frame*-step1-Gray8.png);"
	@echo "what happened is in $(CURDIR)/ipm-out/summary.json."

test: deps
	@JOBS=$(JOBS) cmake/scripts/test-all.sh

bench: build
	@echo "benchmarks arrive with the converters"

clean:
	rm -rf build
