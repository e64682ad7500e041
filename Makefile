# QRV IPM. `make demo` runs the main job, `make test` builds and tests every
# configuration, `make bench` runs the benchmarks, `make bench-arm` counts the
# aarch64 instructions per pixel under qemu, `make soak` is the long run of
# docs/reliability.md (SOAK_SECONDS, 600 by default), `make format` and
# `make lint` keep the sources in shape. Each first installs the Debian
# packages it needs (as root).
JOBS ?= 2

.PHONY: all deps build demo test bench bench-arm soak format format-check lint clean

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

BENCH_OUT = build/native/bench

bench: deps
	@cmake/scripts/install-packages.sh cmake/debian-packages-bench.txt
	@cmake --preset native -DQRV_IPM_BUILD_BENCH=ON >/dev/null
	@cmake --build --preset native -j $(JOBS) --target converter_bench bench_manager
	$(BENCH_OUT)/converter_bench --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
		--benchmark_min_time=0.2 --benchmark_color=false \
		--benchmark_out=$(BENCH_OUT)/converter_bench.json --benchmark_out_format=json \
		| tee $(BENCH_OUT)/converter_bench.txt
	$(BENCH_OUT)/bench_manager | tee $(BENCH_OUT)/bench_manager.txt
	@echo "results: $(BENCH_OUT)/converter_bench.txt, $(BENCH_OUT)/converter_bench.json and $(BENCH_OUT)/bench_manager.txt"

# Counts instructions per pixel on emulated aarch64, beside libyuv's NEON code
# built from Debian's source package: build/arm/bench-arm.txt.
bench-arm: deps
	@JOBS=$(JOBS) bench/arm/bench-arm.sh

# The sources clang-format and clang-tidy look at: every tracked C++ file.
SOURCES = $(shell git ls-files '*.cpp' '*.h')
LINT_SOURCES = $(shell git ls-files 'ipm/*.cpp' 'platform/*.cpp' 'plugins/*.cpp' 'tools/*.cpp')
CLANG_FORMAT = clang-format-14

format: deps
	@$(CLANG_FORMAT) -i $(SOURCES)

format-check: deps
	@$(CLANG_FORMAT) --dry-run -Werror $(SOURCES) && echo "format: clean"

lint: deps
	@cmake --preset native >/dev/null
	@clang-tidy-14 -p build/native --quiet $(LINT_SOURCES) && echo "lint: clean"

SOAK_SECONDS ?= 600

soak: deps
	@cmake/scripts/install-packages.sh cmake/debian-packages-bench.txt
	@cmake --preset native -DQRV_IPM_BUILD_BENCH=ON >/dev/null
	@cmake --build --preset native -j $(JOBS) --target soak
	$(BENCH_OUT)/soak/soak --seconds $(SOAK_SECONDS)

clean:
	rm -rf build
