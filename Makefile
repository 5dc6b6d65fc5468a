# Entry points for people and CI. `make run` builds and launches the editor; `make test` builds and
# runs every test. Both install the Debian packages they need first (see `make deps`).

BUILD      ?= build
ASAN_BUILD ?= build-asan
CMAKE_ARGS ?=
JOBS       ?= $(shell nproc)

# Everything the build, the tests and the benchmarks need from Debian 12.
DEPS := cmake ninja-build g++ pkg-config make \
        libgtest-dev libgmock-dev googletest libbenchmark-dev \
        nlohmann-json3-dev \
        qt6-base-dev qt6-multimedia-dev libgl-dev \
        libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev \
        ffmpeg xvfb xauth clang libclang-rt-14-dev

SUDO := $(shell [ "$$(id -u)" -eq 0 ] || echo sudo)

.PHONY: deps configure build test bench sanitize run clean

deps:
	@missing=$$(for p in $(DEPS); do dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed$$' || echo $$p; done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing:" $$missing; \
	  $(SUDO) apt-get update && DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y --no-install-recommends $$missing; \
	fi

$(BUILD)/build.ninja:
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_ARGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

bench: build
	$(BUILD)/bench/micro/timeline_bench

sanitize: deps
	cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DVANTRIX_BUILD_BENCH=OFF \
	  "-DVANTRIX_SANITIZE=address;undefined" $(CMAKE_ARGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

run: build
	@echo "The Vantrix editor window is not built yet: only the editing model exists so far." >&2; exit 1

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
